#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/DaqController.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/objectmodel/SystemDevice.h"
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
    void setRate(const PropertyObjectPtr<I>& object, int value) {
        object.setPropertyValue("SampleRate", Ratio{value, 1});
    }
    void loadSetup(bool on) { data.setPropertyValue("isUpdatingFromConfiguration", on); }

    std::shared_ptr<TestDevice> device;
    ChannelFolderPtr deviceFolder;
};

TEST_F(RateTest, SystemRateReachesDevicesAndChannels) {
    setRate(dataModule, 5000);
    EXPECT_EQ(controller->sampleRate, 5000);
    EXPECT_EQ(rateOf(dataModule), 5000);
    EXPECT_EQ(device->getRate(), 5000);
    EXPECT_EQ(rateOf(deviceFolder), 5000);
    EXPECT_EQ(device->ai->channels[0]->getRate(), 5000);
    EXPECT_EQ(rateOf(channel("Raw 1")), 5000);
    EXPECT_EQ(rateOf(channel("Async in")), 8);
    EXPECT_TRUE(log.entries.empty());
}

TEST_F(RateTest, SystemRateIsAdjusted) {
    struct Row {
        int wanted;
        int expected;
    };
    for (const Row& row :
         {Row{48000, 46875}, Row{2100000, 1875000}, Row{20000000, 15000000}, Row{7, 10}, Row{-3, 10}}) {
        setRate(dataModule, row.wanted);
        EXPECT_EQ(rateOf(dataModule), row.expected);
        EXPECT_EQ(controller->sampleRate, row.expected);
        EXPECT_EQ(rateOf(channel("Raw 1")), row.expected);
        EXPECT_EQ(log.take(error), Texts{"Sample rate was set to " + std::to_string(row.wanted) + ", adjusted to " +
                                         std::to_string(row.expected)});
    }
}

TEST_F(RateTest, RequestsBeyondTheWidthOfARateMeanTheFastest) {
    dataModule.setPropertyValue("SampleRate", Ratio{int64_t{5} << 32, 1});
    EXPECT_EQ(rateOf(dataModule), 15000000);
}

// A clear has no value to set: what the property then shows counts.
TEST_F(RateTest, ClearedRateIsTheDefault) {
    setRate(dataModule, 5000);
    dataModule.clearProperty("SampleRate");
    EXPECT_EQ(rateOf(dataModule), 1000);
    EXPECT_EQ(controller->sampleRate, 1000);
    EXPECT_TRUE(log.take(error).empty());
}

TEST_F(RateTest, DeviceRate) {
    setRate(deviceFolder, 500);
    EXPECT_EQ(device->getRate(), 500);
    EXPECT_EQ(rateOf(channel("Raw 1")), 500);
    EXPECT_EQ(rateOf(dataModule), 1000);
    EXPECT_TRUE(log.entries.empty());

    setRate(deviceFolder, 300);
    EXPECT_EQ(rateOf(deviceFolder), 250);
    EXPECT_EQ(device->getRate(), 250);
    EXPECT_EQ(log.take(error), Texts{"Daq Device Sample rate was set to 300, adjusted to 250"});

    // No device is faster than the system.
    setRate(deviceFolder, 5000);
    EXPECT_EQ(rateOf(deviceFolder), 1000);
    EXPECT_EQ(device->getRate(), 1000);
    EXPECT_EQ(log.take(error), Texts{"Daq Device Sample rate was set to 5000, adjusted to 1000"});
}

// No divider of the system's rate does: the device stays where it is, and so does what the host shows.
TEST_F(RateTest, DeviceRateWithoutDivider) {
    setRate(dataModule, 25);
    ASSERT_EQ(device->checkRate(25, 11), -1);
    setRate(deviceFolder, 11);
    EXPECT_EQ(rateOf(deviceFolder), 25);
    EXPECT_EQ(device->getRate(), 25);
    EXPECT_EQ(rateOf(channel("Raw 1")), 25);
    EXPECT_EQ(log.take(error), Texts{"Daq Device Sample rate was set to 11, adjusted to 25"});
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
    EXPECT_EQ(log.take(error), Texts{"Channel rate was set to 300, adjusted to 250"});

    setRate(channel("Async in"), 33);
    EXPECT_EQ(device->async->input->asyncRate, 33);

    // Other properties of a channel have nothing to do with it.
    raw.setName("Renamed");
    raw.setScale(3.0);
    raw.setPropertyValue("Anything", 1);
    EXPECT_EQ(rateOf(raw), 250);
    EXPECT_TRUE(log.take(error).empty());
}

TEST_F(RateTest, NothingChangesWhileAcquisitionRuns) {
    controller->setAcqRunning(true);
    setRate(dataModule, 48000);
    setRate(deviceFolder, 300);
    setRate(channel("Raw 1"), 300);
    deviceFolder.setPropertyValue("BaseClock", 1);
    EXPECT_EQ(rateOf(dataModule), 48000);
    EXPECT_EQ(rateOf(deviceFolder), 300);
    EXPECT_EQ(rateOf(channel("Raw 1")), 300);
    EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 1);
    EXPECT_EQ(controller->sampleRate, 1000);
    EXPECT_EQ(device->getRate(), 1000);
    EXPECT_EQ(device->ai->baseClock, 15000000);
    EXPECT_TRUE(log.entries.empty());
}

TEST_F(RateTest, UnknownSendersAreLeftAlone) {
    const auto stranger = ChannelFolderPtr::create("Stranger");
    IPropertyValueChangedEventArgs* made = nullptr;
    checkErrorInfo(createPropertyValueChangedEventArgs(&made, StringPtr("SampleRate").get(), nullptr,
                                                       rate(300).get(), PropertyChangeType::Set));
    PropertyValueChangedEventArgsPtr args(ObjectPtr<IPropertyValueChangedEventArgs>::take(made));
    GenericPropertyObjectPtr sender(stranger.get());
    structure->onDaqDeviceSampleRateChanged(sender, args);
    structure->onChannelSampleRateChanged(sender, args);
    structure->onDaqDeviceBaseClockChanged(sender, args);
    EXPECT_FALSE(stranger.hasProperty("SampleRate"));
    EXPECT_FALSE(stranger.hasProperty("BaseClock"));
    EXPECT_EQ(device->getRate(), 1000);
    EXPECT_TRUE(log.entries.empty());
}

// The host never sees a failure inside: it is logged, the property keeps its value, and the next change works.
TEST_F(RateTest, ExceptionsInHandlersAreLogged) {
    device->ai->failChecks = true;
    setRate(dataModule, 5000);
    EXPECT_EQ(log.take(error), Texts{"Error executing DaqStructure::onSampleRateChanged: rate check failed"});
    setRate(deviceFolder, 500);
    EXPECT_EQ(log.take(error), Texts{"Error executing DaqStructure::onDaqDeviceSampleRateChanged: rate check failed"});
    setRate(channel("Raw 1"), 500);
    EXPECT_EQ(log.take(error), Texts{"Error executing DaqStructure::onChannelSampleRateChanged: rate check failed"});
    deviceFolder.setPropertyValue("BaseClock", 1);
    EXPECT_EQ(log.take(error), Texts{"Error executing DaqStructure::onDaqDeviceBaseClockChanged: rate check failed"});
    EXPECT_EQ(rateOf(dataModule), 5000);
    EXPECT_EQ(controller->sampleRate, 1000);

    device->ai->failChecks = false;
    setRate(dataModule, 2000);
    EXPECT_EQ(controller->sampleRate, 2000);
}

TEST_F(RateTest, ChoosingAClock) {
    setRate(dataModule, 5000);
    deviceFolder.setPropertyValue("BaseClock", 1);
    EXPECT_EQ(device->ai->baseClock, 10000000);
    EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 1);
    EXPECT_EQ(rateOf(channel("Raw 1"), "MaxSampleRate"), 10000000);
    EXPECT_EQ(rateOf(deviceFolder, "MaxSampleRate"), 10000000);
    EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 10000000);
    // 5000 suits both clocks.
    EXPECT_EQ(rateOf(dataModule), 5000);
    EXPECT_TRUE(log.take(error).empty());

    // Neither the clock in force nor one that doesn't exist changes anything; the property shows the one in force.
    for (const int index : {1, 2, -1, 1000}) {
        deviceFolder.setPropertyValue("BaseClock", index);
        EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 1) << index;
        EXPECT_EQ(device->ai->baseClock, 10000000) << index;
    }
}

// A rate that the new clock can't do would fail the next start; it moves, and all that was derived from it.
TEST_F(RateTest, RatesFollowTheClock) {
    setRate(dataModule, 46875);
    deviceFolder.setPropertyValue("BaseClock", 1);
    EXPECT_EQ(rateOf(dataModule), 40000);
    EXPECT_EQ(controller->sampleRate, 40000);
    EXPECT_EQ(rateOf(deviceFolder), 40000);
    EXPECT_EQ(rateOf(channel("Raw 1")), 40000);
    EXPECT_EQ(log.take(error), Texts{"Sample rate was set to 46875, adjusted to 40000"});

    setRate(dataModule, 10000000);
    deviceFolder.setPropertyValue("BaseClock", 0);
    EXPECT_EQ(rateOf(dataModule), 7500000);
}

// Own rates of devices and channels survive a clock that can do them, also those that don't divide.
TEST_F(RateTest, OwnRatesSurviveAClockChange) {
    setRate(deviceFolder, 500);
    setRate(channel("Raw 1"), 250);
    setRate(channel("Filtered 1"), 80);
    ASSERT_EQ(rateOf(channel("Filtered 1")), 71);  // 500 / 7
    log.entries.clear();
    deviceFolder.setPropertyValue("BaseClock", 1);
    ASSERT_EQ(device->ai->baseClock, 10000000);
    EXPECT_EQ(rateOf(deviceFolder), 500);
    EXPECT_EQ(rateOf(channel("Raw 1")), 250);
    EXPECT_EQ(rateOf(channel("Filtered 1")), 71);
    EXPECT_TRUE(log.take(error).empty());
}

// The system's rate suits the new clock, a device's own one doesn't.
TEST_F(RateTest, DeviceRateThatTheNewClockCannotDo) {
    setRate(deviceFolder, 500);
    log.entries.clear();
    device->ai->impossibleRate = 500;
    deviceFolder.setPropertyValue("BaseClock", 1);
    EXPECT_EQ(rateOf(dataModule), 1000);
    EXPECT_EQ(device->getRate(), 250);
    EXPECT_EQ(rateOf(deviceFolder), 250);
    EXPECT_EQ(rateOf(channel("Raw 1")), 250);
    EXPECT_EQ(log.take(error), Texts{"Daq Device Sample rate was set to 500, adjusted to 250"});
}

TEST_F(RateTest, ChannelRateAboveItsNewMaximum) {
    device->ai->filteredMaxAt10MHz = 100;
    deviceFolder.setPropertyValue("BaseClock", 1);
    const auto filtered = channel("Filtered 1");
    EXPECT_EQ(rateOf(filtered, "MaxSampleRate"), 100);
    EXPECT_EQ(rateOf(filtered), 100);
    EXPECT_EQ(device->ai->channels[1]->getRate(), 100);
    EXPECT_EQ(rateOf(channel("Raw 1")), 1000);
    EXPECT_EQ(log.take(error), Texts{"Channel rate was set to 1000, adjusted to 100"});
}

// A user's edit never moves a clock, the load of a setup does.
TEST_F(RateTest, OnlyASetupMovesTheClock) {
    deviceFolder.setPropertyValue("BaseClock", 1);
    setRate(dataModule, 46875);
    EXPECT_EQ(rateOf(dataModule), 40000);
    EXPECT_EQ(device->ai->baseClock, 10000000);
    log.entries.clear();

    loadSetup(true);
    setRate(dataModule, 46875);
    loadSetup(false);
    EXPECT_EQ(device->ai->baseClock, 15000000);
    EXPECT_EQ(deviceFolder.getPropertyValue<int>("BaseClock"), 0);
    EXPECT_EQ(rateOf(dataModule), 46875);
    EXPECT_EQ(rateOf(channel("Raw 1")), 46875);
    EXPECT_EQ(rateOf(dataModule, "MaxSampleRate"), 15000000);
    EXPECT_EQ(log.take(warning),
              Texts{"Device base clock will be changed to 15000000, based on SR: 46875"});
}

TEST_F(RateTest, SetupMovesTheClockForADeviceRate) {
    setRate(dataModule, 3000);  // 10 MHz can't do it
    loadSetup(true);
    setRate(deviceFolder, 200000);  // suits 15 MHz as well
    EXPECT_EQ(device->ai->baseClock, 15000000);
    setRate(deviceFolder, 2000000);
    loadSetup(false);
    EXPECT_EQ(device->ai->baseClock, 10000000);
    // The system's rate had to follow, and no device is faster than the system.
    EXPECT_EQ(controller->sampleRate, 2500);
    EXPECT_EQ(rateOf(dataModule), 2500);
    EXPECT_EQ(device->getRate(), 2500);
    EXPECT_EQ(rateOf(deviceFolder), 2500);
    EXPECT_EQ(rateOf(channel("Raw 1")), 2500);
}

TEST_F(RateTest, HostWithoutTheConfigurationFlag) {
    deviceFolder.setPropertyValue("BaseClock", 1);
    // A data module that hangs nowhere.
    IDataModule* made = nullptr;
    checkErrorInfo(createDataModule(&made, StringPtr("Alone").get()));
    const DataModulePtr alone(ObjectPtr<IDataModule>::take(made));
    structure->buildDataModuleProps(alone);
    log.entries.clear();
    setRate(alone, 46875);
    EXPECT_EQ(rateOf(alone), 40000);
    EXPECT_EQ(device->ai->baseClock, 10000000);
    EXPECT_EQ(log.take(error), Texts{"Sample rate was set to 46875, adjusted to 40000"});
}

std::string serialized(const ObjectPtr<IPropertyObject>& object) {
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
    const auto deserializer = ObjectPtr<IDeserializer>::take(made);
    ISerializedObject* parsed = nullptr;
    checkErrorInfo(deserializer->parse(StringPtr(text).get(), &parsed));
    const auto holder = ObjectPtr<ISerializedObject>::take(parsed);
    checkErrorInfo(object->update(1, parsed));
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
                texts.push_back(serialized(object));
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
    bench.log.entries.clear();
    bench.dataModule.setPropertyValue("SampleRate", Ratio{46875, 1});
    EXPECT_EQ(rateOf(bench.dataModule), 46875);
    // The second one runs at a whole fraction that its own clock can do.
    EXPECT_EQ(first->getRate(), 46875);
    EXPECT_EQ(rateOf(bench.folder("Second")), second->getRate());
    EXPECT_EQ(10000000 % second->getRate(), 0);
    EXPECT_EQ(46875 % second->getRate(), 0);
}

}  // namespace
