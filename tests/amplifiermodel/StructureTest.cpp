#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "tests/amplifiermodel/TestAmplifiers.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

// Two channels with one amplifier, then one channel that nothing is plugged into.
class PairedInputs : public AIDevice {
public:
    PairedInputs() { channels.maxChannels = 3; }
    std::shared_ptr<Amplifier> createAmplifier(int place) override {
        return place < 2 ? amplifier : AIDevice::createAmplifier(place);
    }
    std::shared_ptr<TestAmplifier> amplifier = std::make_shared<TestAmplifier>();
};

class PairedDevice : public DaqDevice {
public:
    PairedDevice() {
        model = "Pair";
        minRate = 10;
        maxRate = 1000000;
    }
    std::shared_ptr<AIDevice> createAIDevice() override { return inputs; }
    std::shared_ptr<PairedInputs> inputs = std::make_shared<PairedInputs>();
};

// The working directory has a definition with these properties, before the bench makes its bridge.
class Definitions : protected TempFolder {
protected:
    explicit Definitions(const std::string& properties) : before_(std::filesystem::current_path()) {
        write("amplifiers/bench.json", definition("ampl_bench", "7.8.9.10", properties));
        std::filesystem::current_path(path);
    }
    ~Definitions() { std::filesystem::current_path(before_); }

private:
    std::filesystem::path before_;
};

class AmplifierBench : protected Definitions, public Bench {
public:
    explicit AmplifierBench(const std::string& properties) : Definitions(properties) {
        build({device});
        controller->operationMode = 1;
    }
    TestAmplifier& amplifier() const { return *device->inputs->amplifier; }
    void prepareStart() {
        reserve({"AI 1", "AI 2"});
        structure->beforeStart();
    }

    const std::shared_ptr<PairedDevice> device = std::make_shared<PairedDevice>();
};

const std::string bridgeSettings =
    choice("Measurement", R"("Bridge")") + rangeList + plain("BridgeOffset", "float", "0.0") + balanceSlots;

class AmplifierTreeTest : public testing::Test, protected AmplifierBench {
protected:
    AmplifierTreeTest() : AmplifierBench(bridgeSettings) { amplifier().journal.take(); }
};

TEST_F(AmplifierTreeTest, OneForTheChannelsOfAnAmplifier) {
    EXPECT_EQ(channel("AI 1").getClassName(), "ampl_bench");
    EXPECT_TRUE(channel("AI 1").hasProperty("UpdateAmplifier"));
    EXPECT_EQ(channel("AI 2").getClassName(), "Channel");
    EXPECT_FALSE(channel("AI 2").hasProperty("UpdateAmplifier"));
    // Nothing plugged in, or something that no definition knows.
    EXPECT_EQ(channel("AI 3").getClassName(), "ampl_unknown");
    EXPECT_EQ(fromValue<std::string>(channel("AI 3").getPropertyEnum("Measurement")), "Voltage");

    structure->tree().buildAIChannel(device->inputs->getAIChannel(1), channel("AI 2"), sync);
    EXPECT_FALSE(channel("AI 2").hasProperty("UpdateAmplifier"));
    EXPECT_THROW(structure->tree().buildAIChannel(std::make_shared<AIChannel>(9), channel("AI 2"), sync),
                 InvalidParameterException);
}

TEST_F(AmplifierTreeTest, BalancingWithoutAnAcquisitionNamesTheChannel) {
    const auto hostChannel = channel("AI 1");
    ASSERT_EQ(runProcedure(hostChannel, "StartSensorBalance"), Errors::Success);
    const auto status = functionOf(hostChannel, "GetSensorBalanceStatus");
    EXPECT_TRUE(eventually([&] { return !fromValue<bool>(executeFunc(status, {})); }));
    EXPECT_EQ(log.take(), Texts{"Balancing of an amplifier failed (Analog inputs/AI 1): no acquisition is running."});
}

TEST_F(AmplifierTreeTest, AStartCarriesSettingsAndScales) {
    channel("AI 1").setPropertyValue("Range", 1);
    EXPECT_EQ(amplifier().rangeIndex, 0);
    amplifier().offsetIsBridgeOffset = true;
    amplifier().bridgeOffset = 0.5;
    prepareStart();
    // Before the acquisition, by each of its two channels, and for the host's scales.
    EXPECT_EQ(amplifier().journal.take(), (Texts{"update", "update", "update", "update"}));
    EXPECT_EQ(amplifier().rangeIndex, 1);
    for (const char* name : {"AI 1", "AI 2"}) {
        const auto hostChannel = channel(name);
        EXPECT_DOUBLE_EQ(hostChannel.getScale(), 5.0 / 4294967296.0) << name;
        EXPECT_EQ(hostChannel.getOffset(), 0.5) << name;
        EXPECT_EQ(hostChannel.getMinValue(), -2.0) << name;
        EXPECT_EQ(hostChannel.getMaxValue(), 3.0) << name;
        EXPECT_EQ(hostChannel.getUnit(), "mV/V") << name;
    }
    EXPECT_EQ(channel("AI 1").getPropertyValue<double>("BridgeOffset"), 0.5);
    EXPECT_EQ(channel("AI 3").getMinValue(), -10.0);
    EXPECT_EQ(channel("AI 3").getUnit(), "V");

    // A failing property ends the start.
    amplifier().onUpdate = [](TestAmplifier&) { throw InvalidValueException("broken"); };
    reserve({"AI 1"});
    EXPECT_THROW(structure->beforeStart(), InvalidValueException);
    EXPECT_FALSE(controller->acqInitialized());
}

TEST_F(AmplifierTreeTest, ClassesGoWithTheBridge) {
    EXPECT_EQ(channel("AI 1").getPropertyValue<int>("Measurement"), 0);
    structure.reset();
    EXPECT_FALSE(PropertyObjectManagerPtr::create().findClass("ampl_bench"));
    EXPECT_FALSE(channel("AI 1").hasProperty("Measurement"));
    EXPECT_TRUE(channel("AI 1").hasProperty("SerialNumber"));
}

// A definition that can be read but not evaluated must not keep the whole instrument from being added.
TEST(UnusableDefinitionTest, CostsItsOwnAmplifierOnly) {
    struct Row {
        std::string properties;
        const char* reason;  // none: the definition is good
    };
    const Row rows[] = {
        {R"json(, {"name": "Measurement", "type": "int", "default": 0},
              {"name": "Range", "type": "reference",
               "reference": {"__type": "Eval", "expr": "switch($Measurement, 1, %Other)"}})json",
         "property \"Range\": Invalid reference to property"},
        {R"json(, {"name": "InputType", "type": "int", "default": 0, "enabled": false})json",
         "property \"InputType\": Property InputType is not enabled"},
        {R"json(, {"name": "SupportsLed1Control", "type": "bool", "readOnly": true})json",
         "property \"SupportsLed1Control\": "},
        {R"json(, {"name": "BridgeOffset", "type": "list", "default": []})json", "property \"BridgeOffset\": "},
        // What every channel has may stand in an expression.
        {R"json(, {"name": "BridgeLeg", "type": "int", "readOnly": true,
               "readOnlyValue": {"__type": "Eval", "expr": "if($Used, $PhaseDelay, $BufferSizeIsMultipleOf)"}})json",
         nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.properties);
        AmplifierBench bench(row.properties);
        const auto hostChannel = bench.channel("AI 1");
        EXPECT_EQ(hostChannel.getClassName(), row.reason == nullptr ? "ampl_bench" : "ampl_unknown");
        // The try doesn't reach the hardware.
        EXPECT_EQ(bench.amplifier().journal.take(), (Texts{"notifyLeaveChSetup", "notifyLeaveChSetup", "update"}));
        if (row.reason == nullptr) {
            EXPECT_TRUE(bench.buildErrors.empty());
            continue;
        }
        ASSERT_EQ(bench.buildErrors.size(), 1u);
        for (const char* part :
             {"/amplifiers/bench.json\" can't be used", "Channel \"Analog inputs/AI 1\", ", row.reason}) {
            EXPECT_NE(bench.buildErrors[0].find(part), std::string::npos) << bench.buildErrors[0];
        }
        EXPECT_EQ(hostChannel.getPropertyValue<std::string>("ModuleName"), "Unknown");
        EXPECT_FALSE(hostChannel.isPropertySet("BridgeLeg"));
        bench.prepareStart();
        EXPECT_EQ(hostChannel.getMaxValue(), 10.0);
    }
}

}  // namespace
