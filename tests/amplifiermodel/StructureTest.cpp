#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <zorn/types/object_impl.h>

#include "modules/daq/DaqController.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "tests/amplifiermodel/TestAmplifiers.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

using Entries = std::vector<std::string>;

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

// The working directory has the definitions, before the bench makes its bridge.
class Definitions : protected TempFolder {
protected:
    Definitions() : before_(std::filesystem::current_path()) {
        write("amplifiers/bridge.json", definition("ampl_bench_bridge", "7.8.9.10", R"json(,
            {"name": "Measurement", "type": "int", "selection": true, "default": 0, "values": ["Bridge"]},
            {"name": "Range", "type": "int", "selection": true, "default": 0, "unit": "mV/V", "values": [
                {"className": "RangeItem", "propValues": {"DisplayName": "20", "Min": -20.0, "Max": 20.0}},
                {"className": "RangeItem", "propValues": {"DisplayName": "2", "Min": -2.0, "Max": 3.0}}]},
            {"name": "DeviceRanges", "type": "float", "default": 0.1, "values": [0.1, 0.01]},
            {"name": "BridgeOffset", "type": "float", "default": 0.0},
            {"name": "StartSensorBalance", "type": "proc"}, {"name": "GetSensorBalanceStatus", "type": "func"},
            {"name": "ResetSensorBalance", "type": "proc"})json"));
        std::filesystem::current_path(path);
    }
    ~Definitions() { std::filesystem::current_path(before_); }

private:
    std::filesystem::path before_;
};

class AmplifierTreeTest : public testing::Test, protected Definitions, protected Bench {
protected:
    AmplifierTreeTest() : device(std::make_shared<PairedDevice>()) {
        build({device});
        controller->operationMode = 1;
        amplifier().journal.take();
    }
    TestAmplifier& amplifier() const { return *device->inputs->amplifier; }
    // As the host starts: nothing else comes in between.
    void start() {
        reserve({"AI 1", "AI 2"});
        sync.lock();
        structure->beforeStart();
        controller->startAcquisition();
        sync.unlock();
    }
    void addSample(int index, int raw) {
        sync.lock();
        auto& target = *device->inputs->channels[static_cast<size_t>(index)];
        static_cast<int*>(target.buffer->getData())[target.buffer->getPosition()] = raw;
        target.incSamplePosition(1);
        sync.unlock();
    }
    bool balancing(const ChannelPtr<>& hostChannel) const {
        BasePtr result;
        EXPECT_EQ(runFunction(hostChannel, "GetSensorBalanceStatus", {}, result), Errors::Success);
        return fromValue<bool>(result);
    }

    std::shared_ptr<PairedDevice> device;
};

TEST_F(AmplifierTreeTest, OneForTheChannelsOfAnAmplifier) {
    EXPECT_EQ(channel("AI 1").getClassName(), "ampl_bench_bridge");
    EXPECT_TRUE(channel("AI 1").hasProperty("UpdateAmplifier"));
    EXPECT_EQ(channel("AI 2").getClassName(), "Channel");
    EXPECT_FALSE(channel("AI 2").hasProperty("UpdateAmplifier"));
    // Nothing plugged in, or something that no definition knows.
    EXPECT_EQ(channel("AI 3").getClassName(), "ampl_unknown");
    EXPECT_EQ(fromValue<std::string>(channel("AI 3").getPropertyEnum("Measurement")), "Voltage");

    structure->buildAIChannel(device->inputs->getAIChannel(1), channel("AI 2"), sync);
    EXPECT_FALSE(channel("AI 2").hasProperty("UpdateAmplifier"));
    EXPECT_THROW(structure->buildAIChannel(std::make_shared<AIChannel>(9), channel("AI 2"), sync),
                 InvalidParameterException);
}

TEST_F(AmplifierTreeTest, AStartCarriesSettingsAndScales) {
    channel("AI 1").setPropertyValue("Range", 1);
    EXPECT_EQ(amplifier().rangeIndex, 0);
    amplifier().scales = {};
    amplifier().offsetIsBridgeOffset = true;
    amplifier().bridgeOffset = 0.5;
    start();
    // Before the acquisition, by each of its two channels, and for the host's scales.
    EXPECT_EQ(amplifier().journal.take(), (Entries{"update", "update", "update", "update"}));
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
    controller->stopAcquisition();

    // A failing property ends the start.
    amplifier().onUpdate = [](TestAmplifier&) { throw InvalidValueException("broken"); };
    reserve({"AI 1"});
    EXPECT_THROW(structure->beforeStart(), InvalidValueException);
    EXPECT_FALSE(controller->acqInitialized);
}

TEST_F(AmplifierTreeTest, BalancesARunningAcquisition) {
    const auto hostChannel = channel("AI 1");
    ASSERT_EQ(runProcedure(hostChannel, "StartSensorBalance"), Errors::Success);
    ASSERT_TRUE(eventually([&] { return !balancing(hostChannel); }));
    EXPECT_EQ(log.take(4), Entries{"Balancing of an amplifier failed: no acquisition is running."});

    start();
    addSample(0, 7);
    addSample(1, 3);
    ASSERT_EQ(runProcedure(hostChannel, "StartSensorBalance"), Errors::Success);
    ASSERT_TRUE(eventually([&] { return !balancing(hostChannel); }));
    EXPECT_EQ(amplifier().bridgeOffset, -3.0);  // of the second channel, whose index the amplifier has
    EXPECT_TRUE(log.take(4).empty());
    EXPECT_EQ(runProcedure(hostChannel, "ResetSensorBalance"), Errors::Success);
    controller->stopAcquisition();
}

// A module goes while a balancing waits for samples of a new range.
TEST_F(AmplifierTreeTest, TeardownWhileBalancing) {
    const auto hostChannel = channel("AI 1");
    const auto idle = zornSharedLibObjectCount.load();
    // Device ranges of 100 and 10 around the offset for a chosen one of 2.
    hostChannel.setPropertyValue("Range", 1);
    amplifier().excitationValue = 1.0;
    start();
    addSample(1, 1);
    amplifier().scales = {-90.0, 0.0};
    amplifier().journal.take();
    ASSERT_EQ(runProcedure(hostChannel, "StartSensorBalance"), Errors::Success);
    Entries seen;
    ASSERT_TRUE(eventually([&] {
        for (auto& entry : amplifier().journal.take()) {
            seen.push_back(std::move(entry));
        }
        return std::find(seen.begin(), seen.end(), "calibration") != seen.end();
    }));
    controller->stopAcquisition();
    std::weak_ptr<TestAmplifier> watch = device->inputs->amplifier;
    structure.reset();
    controller.reset();
    device.reset();
    devicesToFind().clear();
    EXPECT_TRUE(eventually([&] { return watch.expired(); }));
    EXPECT_LE(zornSharedLibObjectCount.load(), idle);
    EXPECT_EQ(runProcedure(hostChannel, "StartSensorBalance"), Errors::InvalidState);
    EXPECT_EQ(takeErrorMessage(), "The data acquisition module is gone.");
    EXPECT_TRUE(log.take(4).empty());
}

TEST_F(AmplifierTreeTest, ClassesGoWithTheLastBridge) {
    const auto known = [] { return bool(PropertyObjectManagerPtr::create().findClass("ampl_bench_bridge")); };
    auto other = std::make_unique<DaqStructure>(*controller);
    structure.reset();
    EXPECT_TRUE(known());
    EXPECT_EQ(channel("AI 1").getPropertyValue<int>("Measurement"), 0);
    other.reset();
    EXPECT_FALSE(known());
    EXPECT_FALSE(channel("AI 1").hasProperty("Measurement"));
    EXPECT_TRUE(channel("AI 1").hasProperty("SerialNumber"));
}

}
