#include <set>

#include "modules/daq/amplifier/DefinitionTrial.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "tests/amplifiermodel/TestAmplifiers.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

// Two channels with one amplifier, then one channel that nothing is plugged into.
struct PairedInputs : AIDevice {
    PairedInputs() { channels.maxChannels = 3; }
    std::shared_ptr<Amplifier> createAmplifier(int place) override {
        return place < 2 ? amplifier : AIDevice::createAmplifier(place);
    }
    std::shared_ptr<TestAmplifier> amplifier = std::make_shared<TestAmplifier>();
};

struct PairedDevice : DaqDevice {
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

struct AmplifierBench : protected Definitions, Bench {
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

struct AmplifierTreeTest : testing::Test, protected AmplifierBench {
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
    EXPECT_EQ(amplifier().settings()->rangeIndex, 0);
    amplifier().offsetIsBridgeOffset = true;
    amplifier().bridgeOffset = 0.5;
    prepareStart();
    // Before the acquisition, by each of its two channels, and for the host's scales.
    EXPECT_EQ(amplifier().journal.take(), Texts(4, "update"));
    EXPECT_EQ(amplifier().settings()->rangeIndex, 1);
    const auto expectScale = [&](const char* name, double offset, double lowest, double highest, const char* unit) {
        const auto found = channel(name);
        EXPECT_EQ((std::vector{found.getOffset(), found.getMinValue(), found.getMaxValue()}),
                  (std::vector{offset, lowest, highest}));
        EXPECT_EQ(found.getUnit(), unit);
    };
    expectScale("AI 1", 0.5, -2.0, 3.0, "mV/V");
    expectScale("AI 2", 0.5, -2.0, 3.0, "mV/V");
    expectScale("AI 3", 0.0, -10.0, 10.0, "V");
    EXPECT_DOUBLE_EQ(channel("AI 2").getScale(), 5.0 / 4294967296.0);
    EXPECT_EQ(channel("AI 1").getPropertyValue<double>("BridgeOffset"), 0.5);

    // A failing property ends the start.
    amplifier().onUpdate = [](TestAmplifier&) { throw InvalidValueException("broken"); };
    reserve({"AI 1"});
    EXPECT_THROW(structure->beforeStart(), InvalidValueException);
    EXPECT_FALSE(controller->acqInitialized());
}

// An amplifier that takes its settings in the last round of a start only: the channels are scaled by them all the same.
TEST_F(AmplifierTreeTest, ScalesAreThoseOfTheLastRound) {
    int rounds = 0;
    amplifier().onUpdate = [&](TestAmplifier& one) {
        one.edit([&](AmplifierSettings& now) { now.rangeIndex = ++rounds < 4 ? 0 : 1; });
        one.setFailure(rounds < 4 ? std::optional(AmplifierFailure{"Range", "no answer", {}}) : std::nullopt);
    };
    prepareStart();
    EXPECT_EQ(rounds, 4);
    for (const char* name : {"AI 1", "AI 2"}) {
        EXPECT_EQ(channel(name).getMaxValue(), 3.0) << name;
        EXPECT_DOUBLE_EQ(channel(name).getScale(), 5.0 / 4294967296.0) << name;
        EXPECT_EQ(channel(name).getPropertyValue<std::string>("AmplifierFailure"), "") << name;
        EXPECT_EQ(channel(name).getPropertyValue<std::string>("SettingsInForce"), "Measurement: Bridge; Range: 2 mV/V");
    }
}

TEST_F(AmplifierTreeTest, ClassesGoWithTheBridge) {
    EXPECT_EQ(channel("AI 1").getPropertyValue<int>("Measurement"), 0);
    structure.reset();
    EXPECT_FALSE(PropertyObjectManagerPtr::create().findClass("ampl_bench"));
    EXPECT_FALSE(channel("AI 1").hasProperty("Measurement"));
    EXPECT_TRUE(channel("AI 1").hasProperty("SerialNumber"));
}

std::set<std::string> namesOf(const ChannelPtr<>& channel) {
    std::set<std::string> names;
    for (const auto& info : channel.enumProperties()) {
        names.insert(info.getName().toStdString());
    }
    return names;
}

// Whoever tries a definition without an instrument has what expressions may name.
TEST_F(AmplifierTreeTest, ATrialsChannelHasTheProperties) {
    // How the amplifier stands is shown once it is there.
    auto names = namesOf(DefinitionTrial::plainChannel());
    names.insert({"AmplifierFailure", "SettingsInForce"});
    EXPECT_EQ(namesOf(channel("AI 2")), names);
}

// It costs nothing until it is chosen, so it is told when it is found.
TEST(LaterMeasurementTest, WhatItWouldFailOnIsLogged) {
    AmplifierBench bench(choice("Measurement", R"("Bridge", "Gone", "Words")") + balanceSlots +
                         R"json(, {"name": "Range", "type": "reference",
            "reference": {"__type": "Eval", "expr": "switch($Measurement, 0, %First, 2, %First)"}},
          {"name": "First", "type": "int", "selection": true, "default": 0, "unit": "V", "values": [
            {"className": "RangeItem", "propValues": {"DisplayName": "ten", "Min": -10.0, "Max": 10.0}}]},
          {"name": "InputType", "type": "int", "selection": true, "default": 0,
            "values": {"__type": "Eval", "expr": "if($Measurement == 2, $First, $Nothing)"}},
          {"name": "Nothing", "type": "list", "default": []})json");
    EXPECT_EQ(bench.channel("AI 1").getClassName(), "ampl_bench");
    EXPECT_TRUE(bench.buildErrors.empty());
    const auto another = std::make_shared<AIChannel>(9);
    another->name = "AI 9";
    another->amplifier = std::make_shared<TestAmplifier>();
    another->createChannelBuffer<float>();
    const auto folder = ChannelFolderPtr::create("Other");
    folder.setName("Analog inputs");
    const auto hostChannel = makeHostChannel();
    folder.addChild(hostChannel);
    bench.log.take();
    bench.structure->tree().buildAIChannel(another, hostChannel, bench.sync);
    EXPECT_EQ(hostChannel.getClassName(), "ampl_bench");
    const Texts warnings = bench.log.take(warning);
    const char* const expected[] = {"measurement 0 (Bridge). property \"Range\": the range \"ten\" is no number.",
                                    "measurement 1 (Gone). Channel \"Analog inputs/AI 9\", property \"Range\": ",
                                    "measurement 2 (Words). Channel \"Analog inputs/AI 9\", property \"InputType\": "};
    ASSERT_EQ(warnings.size(), std::size(expected));
    for (size_t i = 0; i < warnings.size(); ++i) {
        EXPECT_NE(warnings[i].find("/amplifiers/bench.json\" fails in "), std::string::npos) << warnings[i];
        EXPECT_NE(warnings[i].find(expected[i]), std::string::npos) << warnings[i];
    }
}

// A definition that can be read but not evaluated must not keep the whole instrument from being added.
TEST(UnusableDefinitionTest, CostsItsOwnAmplifierOnly) {
    // Without a reason the definition is good.
    const std::pair<std::string, const char*> rows[] = {
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
               "readOnlyValue": {"__type": "Eval",
                                 "expr": "if($Used && $ExactSampleRate > 0, $PhaseDelay, $BufferSizeIsMultipleOf)"}})json",
         nullptr},
    };
    for (const auto& [properties, reason] : rows) {
        SCOPED_TRACE(properties);
        AmplifierBench bench(properties);
        const auto hostChannel = bench.channel("AI 1");
        EXPECT_EQ(hostChannel.getClassName(), reason == nullptr ? "ampl_bench" : "ampl_unknown");
        // The try doesn't reach the hardware.
        EXPECT_EQ(bench.amplifier().journal.take(), (Texts{"notifyLeaveChSetup", "notifyLeaveChSetup", "update"}));
        if (reason == nullptr) {
            EXPECT_TRUE(bench.buildErrors.empty());
            continue;
        }
        ASSERT_EQ(bench.buildErrors.size(), 1u);
        for (const char* part :
             {"/amplifiers/bench.json\" can't be used", "Channel \"Analog inputs/AI 1\", ", reason}) {
            EXPECT_NE(bench.buildErrors[0].find(part), std::string::npos) << bench.buildErrors[0];
        }
        EXPECT_EQ(hostChannel.getPropertyValue<std::string>("ModuleName"), "Unknown");
        EXPECT_FALSE(hostChannel.isPropertySet("BridgeLeg"));
        bench.prepareStart();
        EXPECT_EQ(hostChannel.getMaxValue(), 10.0);
    }
}

}  // namespace
