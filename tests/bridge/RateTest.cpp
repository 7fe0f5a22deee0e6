#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "modules/daq/DaqController.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

constexpr int warning = 3;
constexpr int error = 4;
using Texts = std::vector<std::string>;

class RateTest : public testing::Test, protected Bench {
protected:
    RateTest() : device(std::make_shared<TestDevice>()) {
        build({device});
        deviceFolder = folder("Bench 8");
    }

    template <class I>
    void setRate(const PropertyObjectPtr<I>& object, int64_t value) {
        object.setPropertyValue("SampleRate", Ratio{value, 1});
    }
    void chooseClock(int index) { deviceFolder.setPropertyValue("BaseClock", index); }
    void loadSetup(bool on) { data.setPropertyValue("isUpdatingFromConfiguration", on); }
    // A rate of the device and its first channel, in the tree and in the host.
    void expectRate(int expected) const {
        EXPECT_EQ(device->getRate(), expected);
        EXPECT_EQ(rateOf(deviceFolder), expected);
        EXPECT_EQ(device->ai->channels[0]->getRate(), expected);
        EXPECT_EQ(rateOf(channel("Raw 1")), expected);
    }
    void expectSystemRate(int expected) const {
        EXPECT_EQ(controller->sampleRate, expected);
        EXPECT_EQ(rateOf(dataModule), expected);
        expectRate(expected);
    }

    std::shared_ptr<TestDevice> device;
    ChannelFolderPtr deviceFolder;
};

Texts adjusted(const std::string& what, int64_t wanted, int became) {
    return {what + " was set to " + std::to_string(wanted) + ", adjusted to " + std::to_string(became)};
}

TEST_F(RateTest, SystemRate) {
    const std::pair<int64_t, int> rows[] = {{5000, 5000},         {48000, 46875}, {2100000, 1875000},
                                            {20000000, 15000000}, {7, 10},        {-3, 10}};
    for (const auto& [wanted, expected] : rows) {
        SCOPED_TRACE(wanted);
        setRate(dataModule, wanted);
        expectSystemRate(expected);
        EXPECT_EQ(log.take(error), wanted == expected ? Texts() : adjusted("Sample rate", wanted, expected));
    }
    EXPECT_EQ(rateOf(channel("Async in")), 8);
    // Beyond the width of a rate: the fastest.
    setRate(dataModule, int64_t{5} << 32);
    expectSystemRate(15000000);
    log.entries.clear();
    // A clear has no value to set: what the property then shows counts.
    dataModule.clearProperty("SampleRate");
    expectSystemRate(1000);
    EXPECT_TRUE(log.take(error).empty());
}

TEST_F(RateTest, DeviceRate) {
    struct Row {
        int system;
        int wanted;
        int expected;
    };
    for (const Row& row : {Row{1000, 500, 500}, Row{1000, 300, 250},
                           Row{1000, 5000, 1000},  // no device is faster than the system
                           Row{25, 11, 25}}) {     // without a divider it stays where it is
        SCOPED_TRACE(row.wanted);
        if (controller->sampleRate != row.system) {
            setRate(dataModule, row.system);
        }
        setRate(deviceFolder, row.wanted);
        expectRate(row.expected);
        EXPECT_EQ(rateOf(dataModule), row.system);
        EXPECT_EQ(log.take(error), row.wanted == row.expected
                                       ? Texts()
                                       : adjusted("Daq Device Sample rate", row.wanted, row.expected));
    }
    EXPECT_EQ(device->checkRate(25, 11), -1);
}

TEST_F(RateTest, ChannelRate) {
    const auto raw = channel("Raw 1");
    setRate(raw, 500);
    EXPECT_EQ(device->ai->channels[0]->getRate(), 500);
    EXPECT_EQ(device->ai->channels[1]->getRate(), 1000);
    EXPECT_TRUE(log.entries.empty());
    setRate(raw, 300);
    EXPECT_EQ(rateOf(raw), 250);
    EXPECT_EQ(device->ai->channels[0]->srDiv, 4);
    EXPECT_EQ(log.take(error), adjusted("Channel rate", 300, 250));

    setRate(channel("Async in"), 33);
    EXPECT_EQ(device->async->input->asyncRate, 33);
    // Other properties of a channel have nothing to do with it.
    device->ai->onCheck = [] { throw std::runtime_error("not asked for"); };
    raw.setName("Renamed");
    raw.setPropertyValue("MaxSampleRate", Ratio{7, 1});
    EXPECT_EQ(rateOf(raw), 250);
    EXPECT_TRUE(log.take(error).empty());
}

TEST_F(RateTest, NothingChangesWhileAcquisitionRuns) {
    controller->setAcqRunning(true);
    setRate(dataModule, 48000);
    setRate(deviceFolder, 300);
    setRate(channel("Raw 1"), 300);
    chooseClock(1);
    EXPECT_EQ(rateOf(dataModule), 48000);
    EXPECT_EQ(rateOf(deviceFolder), 300);
    EXPECT_EQ(rateOf(channel("Raw 1")), 300);
    EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 1);
    EXPECT_EQ(controller->sampleRate, 1000);
    EXPECT_EQ(device->getRate(), 1000);
    EXPECT_EQ(device->ai->channels[0]->getRate(), 1000);
    EXPECT_EQ(device->ai->baseClock, 15000000);
    EXPECT_TRUE(log.entries.empty());
}

// The host never sees a failure inside: it is logged, the property keeps its value, and the next change works.
TEST_F(RateTest, ExceptionsInHandlersAreLogged) {
    struct Speechless : std::exception {
        const char* what() const noexcept override { return nullptr; }
    };
    const auto failure = [](const char* handler, const char* text) {
        return Texts{std::string("Error executing DaqStructure::") + handler + ": " + text};
    };
    device->ai->onCheck = [] { throw Speechless(); };
    setRate(dataModule, 5000);
    EXPECT_EQ(log.take(error), failure("onSampleRateChanged", "(null)"));
    device->ai->onCheck = [] { throw std::runtime_error("rate check failed"); };
    setRate(deviceFolder, 500);
    EXPECT_EQ(log.take(error), failure("onDaqDeviceSampleRateChanged", "rate check failed"));
    setRate(channel("Raw 1"), 500);
    EXPECT_EQ(log.take(error), failure("onChannelSampleRateChanged", "rate check failed"));
    chooseClock(1);
    EXPECT_EQ(log.take(error), failure("onDaqDeviceBaseClockChanged", "rate check failed"));
    EXPECT_EQ(rateOf(dataModule), 5000);
    EXPECT_EQ(controller->sampleRate, 1000);

    device->ai->onCheck = nullptr;
    setRate(dataModule, 2000);
    expectSystemRate(2000);
}

TEST_F(RateTest, ChoosingAClock) {
    setRate(dataModule, 5000);
    chooseClock(1);
    EXPECT_EQ(device->ai->baseClock, 10000000);
    EXPECT_EQ(rateOf(channel("Raw 1"), "MaxSampleRate"), 10000000);
    EXPECT_EQ(rateOf(deviceFolder, "MaxSampleRate"), 10000000);
    EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 10000000);
    expectSystemRate(5000);  // suits both clocks
    EXPECT_TRUE(log.take(error).empty());

    // Neither the clock in force nor one that doesn't exist changes anything; the property shows the one in force.
    for (const int index : {1, 2, -1}) {
        chooseClock(index);
        EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 1) << index;
        EXPECT_EQ(device->ai->baseClock, 10000000) << index;
    }

    // A rate that the new clock can't do would fail the next start; it moves, and all that was derived from it.
    setRate(dataModule, 10000000);
    chooseClock(0);
    expectSystemRate(7500000);
    EXPECT_EQ(log.take(error), adjusted("Sample rate", 10000000, 7500000));
}

// Own rates of devices and channels survive a clock that can do them, also those that don't divide.
TEST_F(RateTest, OwnRatesSurviveAClockChange) {
    setRate(deviceFolder, 500);
    setRate(channel("Raw 1"), 250);
    setRate(channel("Filtered 1"), 80);
    ASSERT_EQ(rateOf(channel("Filtered 1")), 71);  // 500 / 7
    log.entries.clear();
    chooseClock(1);
    ASSERT_EQ(device->ai->baseClock, 10000000);
    EXPECT_EQ(rateOf(deviceFolder), 500);
    EXPECT_EQ(rateOf(channel("Raw 1")), 250);
    EXPECT_EQ(rateOf(channel("Filtered 1")), 71);
    EXPECT_TRUE(log.take(error).empty());
}

// The system's rate suits the new clock, a channel's or device's own one doesn't.
TEST_F(RateTest, OwnRatesThatTheNewClockCannotDo) {
    device->ai->filteredMaxAt10MHz = 100;
    chooseClock(1);
    EXPECT_EQ(rateOf(channel("Filtered 1"), "MaxSampleRate"), 100);
    EXPECT_EQ(rateOf(channel("Filtered 1")), 100);
    EXPECT_EQ(device->ai->channels[1]->getRate(), 100);
    expectSystemRate(1000);
    EXPECT_EQ(log.take(error), adjusted("Channel rate", 1000, 100));

    setRate(deviceFolder, 500);
    device->ai->impossibleRate = 500;
    chooseClock(0);
    EXPECT_EQ(rateOf(dataModule), 1000);
    expectRate(250);
    EXPECT_EQ(log.take(error), adjusted("Daq Device Sample rate", 500, 250));
}

// A user's edit never moves a clock, the load of a setup does.
TEST_F(RateTest, OnlyASetupMovesTheClock) {
    chooseClock(1);
    setRate(dataModule, 46875);
    expectSystemRate(40000);
    EXPECT_EQ(device->ai->baseClock, 10000000);
    log.entries.clear();

    loadSetup(true);
    setRate(dataModule, 46875);
    EXPECT_EQ(device->ai->baseClock, 15000000);
    EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 0);
    expectSystemRate(46875);
    EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 15000000);
    EXPECT_EQ(log.take(warning), Texts{"Device base clock will be changed to 15000000, based on SR: 46875"});

    // A device's rate does it too: the system's has to follow, and no device is faster than the system.
    setRate(dataModule, 3000);
    setRate(deviceFolder, 200000);  // suits 15 MHz as well
    EXPECT_EQ(device->ai->baseClock, 15000000);
    setRate(deviceFolder, 2000000);
    EXPECT_EQ(device->ai->baseClock, 10000000);
    expectSystemRate(2500);

    // A data module that hangs nowhere has nobody who loads a setup.
    IDataModule* made = nullptr;
    checkErrorInfo(createDataModule(&made, StringPtr("Alone").get()));
    const DataModulePtr alone(ObjectPtr<IDataModule>::take(made));
    structure->buildDataModuleProps(alone);
    setRate(alone, 46875);
    EXPECT_EQ(rateOf(alone), 40000);
    EXPECT_EQ(device->ai->baseClock, 10000000);
}

// As a host stores a setup and loads it again.
std::string stored(const ObjectPtr<IPropertyObject>& object) {
    ISerializer* made = nullptr;
    checkErrorInfo(createJsonSerializer(&made));
    const auto serializer = ObjectPtr<ISerializer>::take(made);
    checkErrorInfo(object->serialize(serializer.get()));
    IString* text = nullptr;
    checkErrorInfo(serializer->getOutput(&text));
    return StringPtr(ObjectPtr<IString>::take(text)).toStdString();
}

void load(const ObjectPtr<IPropertyObject>& object, const std::string& text) {
    IDeserializer* made = nullptr;
    checkErrorInfo(createJsonDeserializer(&made));
    ISerializedObject* parsed = nullptr;
    checkErrorInfo(ObjectPtr<IDeserializer>::take(made)->parse(StringPtr(text).get(), &parsed));
    checkErrorInfo(object->update(1, ObjectPtr<ISerializedObject>::take(parsed).get()));
}

// A stored setup brings clock and rates back, whatever clock is in force when it is loaded.
TEST(SetupTest, RatesComeBackFromASetup) {
    struct Row {
        int storedClock;
        int systemRate;
        int deviceRate;
        int channelRate;
        int clockAtLoad;
    };
    for (const Row& row : {Row{0, 46875, 15625, 3125, 1}, Row{1, 400000, 200000, 50000, 0},
                           Row{1, 2000000, 1000000, 1000000, 0}, Row{0, 1000, 500, 100, 0}}) {
        SCOPED_TRACE(row.systemRate);
        const auto objectsOf = [](Bench& bench) {
            return std::vector<ObjectPtr<IPropertyObject>>{bench.dataModule.get(), bench.folder("Bench 8").get(),
                                                           bench.channel("Raw 1").get()};
        };
        std::vector<std::string> texts;
        {
            Bench bench;
            bench.build({std::make_shared<TestDevice>()});
            bench.folder("Bench 8").setPropertyValue("BaseClock", row.storedClock);
            bench.dataModule.setPropertyValue("SampleRate", Ratio{row.systemRate, 1});
            bench.folder("Bench 8").setPropertyValue("SampleRate", Ratio{row.deviceRate, 1});
            bench.channel("Raw 1").setSampleRate(Ratio{row.channelRate, 1});
            for (const auto& object : objectsOf(bench)) {
                texts.push_back(stored(object));
            }
        }
        Bench bench;
        auto device = std::make_shared<TestDevice>();
        bench.build({device});
        bench.folder("Bench 8").setPropertyValue("BaseClock", row.clockAtLoad);
        bench.data.setPropertyValue("isUpdatingFromConfiguration", true);
        const auto objects = objectsOf(bench);
        for (size_t i = 0; i < objects.size(); ++i) {
            load(objects[i], texts[i]);
        }
        bench.data.setPropertyValue("isUpdatingFromConfiguration", false);
        EXPECT_EQ(device->ai->baseClock, device->ai->baseClocks[static_cast<size_t>(row.storedClock)]);
        EXPECT_EQ(bench.folder("Bench 8").getPropertyValue<int>("BaseClock"), row.storedClock);
        EXPECT_EQ(rateOf(bench.dataModule), row.systemRate);
        EXPECT_EQ(rateOf(bench.folder("Bench 8")), row.deviceRate);
        EXPECT_EQ(rateOf(bench.channel("Raw 1")), row.channelRate);
        EXPECT_EQ(device->ai->channels[0]->getRate(), row.channelRate);
        EXPECT_TRUE(bench.log.take(error).empty());
    }
}

// Two devices: the system's rate is the one that both can do.
TEST(RateOfTwoDevicesTest, SystemRateSuitsBoth) {
    Bench bench;
    auto first = std::make_shared<TestDevice>();
    auto second = std::make_shared<TestDevice>();
    second->model = "Second";
    bench.build({first, second});
    bench.folder("Second").setPropertyValue("BaseClock", 1);
    bench.dataModule.setPropertyValue("SampleRate", Ratio{46875, 1});
    EXPECT_EQ(rateOf(bench.dataModule), 46875);
    // The second one runs at a whole fraction that its own clock can do.
    EXPECT_EQ(first->getRate(), 46875);
    EXPECT_EQ(rateOf(bench.folder("Second")), second->getRate());
    EXPECT_EQ(10000000 % second->getRate(), 0);
    EXPECT_EQ(46875 % second->getRate(), 0);
}

}  // namespace
