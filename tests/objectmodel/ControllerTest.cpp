#include <gtest/gtest.h>

#include "RecordingDevice.h"
#include "modules/daq/DaqController.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/synchronization/GenericDaqClock.h"

using namespace Harvane::RT::Modules::Daq;
using recording::Recorded;
using recording::RecordedChannel;
using recording::Steps;

namespace {

using Mode = SynchronizationMode;

SynchronizationOption option(Mode slave, const SynchronizationModes& sources = {}) {
    return Synchronization::CreateSyncOption(slave, sources);
}

const SynchronizationOptions instrumentOptions{option(Mode::Standalone), option(Mode::Standalone, {Mode::Ptp}),
                                               option(Mode::Ptp), option(Mode::Pps), option(Mode::Irig)};
const SynchronizationOptions canOptions{option(Mode::SoftSync), option(Mode::Standalone)};
const SynchronizationOptions plainOptions{option(Mode::Standalone)};

class TestClock : public DaqClock {
public:
    double getCurrentTime(bool) override { return time; }
    double time = -1.0;
};

class TestTiming : public DaqTiming {
public:
    std::int64_t getStartTime() override { return -1; }
    std::int64_t getCurrentTime(bool&, bool&) override { return -1; }
};

class TestLoop : public DaqLoop {
public:
    int checkCycleRate(int requested) const override { return requested; }
    int checkCycleRate(int requested, const std::vector<int>&) const override { return requested; }
    void setCycleFunction(const std::function<void()>&) override {}
};

class TestDevice : public Recorded<DaqDevice> {
public:
    TestDevice(Steps& steps, const std::string& id, const SynchronizationOptions& options)
        : Recorded(steps, id), options(options) {}
    SynchronizationOptions getSynchronizationOptions() override { return options; }
    std::shared_ptr<DaqClock> createDaqClock() override { return hasClock ? std::make_shared<TestClock>() : nullptr; }
    std::shared_ptr<DaqTiming> createDaqTiming() override {
        return hasTiming ? std::make_shared<TestTiming>() : nullptr;
    }
    std::shared_ptr<DaqLoop> createDaqLoop() override { return hasLoop ? std::make_shared<TestLoop>() : nullptr; }
    TestClock& clock() { return static_cast<TestClock&>(*daqClock); }

    SynchronizationOptions options;
    bool hasClock = true;
    bool hasTiming = false;
    bool hasLoop = false;
};

/// Factory of a tree that a test has put together beforehand.
class TreeFactory : public DeviceFactory {
public:
    explicit TreeFactory(std::function<std::shared_ptr<Device>()> make) : make(make) {}
    std::vector<std::string> supportsInterfaces() const override { return {"One"}; }
    std::shared_ptr<Device> createDevice(const std::shared_ptr<ConnectionPoint>&) override { return make(); }
    std::function<std::shared_ptr<Device>()> make;
};

class OnePoint : public ConnectionPoint {
public:
    using ConnectionPoint::ConnectionPoint;
    using ConnectionPoint::sendCommand;
    void sendCommand(int, const unsigned char*, unsigned long, unsigned char*, unsigned long&, int) override {}
    unsigned long readData(int, unsigned char*, unsigned long, int) override { return 0; }
    unsigned long writeData(int, const unsigned char*, unsigned long, int) override { return 0; }
};
class OnePort : public InterfacePort {
public:
    using InterfacePort::InterfacePort;
    std::vector<std::string> enumConnectionPoints() const override { return {"1"}; }
    std::shared_ptr<ConnectionPoint> createConnectionPoint(const std::string& id) override {
        return std::make_shared<OnePoint>(id);
    }
};
class OneInterface : public Interface {
public:
    std::string getInterfaceName() const override { return "One"; }
    std::vector<std::string> enumPorts() const override { return {"port"}; }
    std::shared_ptr<InterfacePort> createPort(const std::string& id) override { return std::make_shared<OnePort>(id); }
};

class Controller : public testing::Test {
protected:
    std::shared_ptr<TestDevice> add(const std::string& id, const SynchronizationOptions& options = plainOptions,
                                    int minRate = 0, int maxRate = Device::noMaxRate) {
        auto device = std::make_shared<TestDevice>(steps, id, options);
        device->minRate = minRate;
        device->maxRate = maxRate;
        devices.push_back(device);
        return device;
    }
    std::shared_ptr<RecordedChannel> channel(Device& device, const std::string& id, int divider = 1) {
        auto made = std::make_shared<RecordedChannel>(steps, static_cast<int>(device.channels.size()), id);
        made->srDiv = divider;
        device.channels.push_back(made);
        return made;
    }
    /// The controller finds a root with the devices added so far.
    void scan() {
        controller.interfaces.clear();
        controller.interfaces.push_back(std::make_shared<OneInterface>());
        controller.daqFactory.deviceFactories = {std::make_shared<TreeFactory>([this] {
            auto root = std::make_shared<SystemDevice>();
            root->insert(root->end(), devices.begin(), devices.end());
            return root;
        })};
        controller.initialize();
        controller.scan();
    }
    Steps take() { return std::exchange(steps, {}); }
    SynchronizationOption chosen(const std::shared_ptr<TestDevice>& device) {
        return {device->synchronization.slaveMode, device->synchronization.sourceModes};
    }

    Steps steps;
    std::vector<std::shared_ptr<TestDevice>> devices;
    DaqController controller;
};

}

TEST_F(Controller, EmptySystem) {
    EXPECT_EQ(controller.getMinSampleRate(), 1);
    EXPECT_EQ(controller.getMaxSampleRate(), 10);
    EXPECT_EQ(controller.checkSampleRate(1000), 10);
    EXPECT_EQ(controller.checkSampleRate(-3), 1);
    EXPECT_FALSE(controller.findDeviceWithMaxSR());
    EXPECT_EQ(controller.getSynchronizationOptions(), plainOptions);
    EXPECT_THROW(controller.setSynchronization(option(Mode::Ptp)), std::runtime_error);
    EXPECT_THROW(controller.setSynchronization(option(Mode::Standalone, {Mode::Ptp})), std::runtime_error);
    EXPECT_EQ(controller.synchronization, option(Mode::None));
    controller.setSynchronization(option(Mode::Standalone));
    EXPECT_EQ(controller.synchronization, option(Mode::Standalone));
    EXPECT_EQ(controller.getCurrentTime(), -1.0);
    EXPECT_FALSE(controller.findDeviceByChannel(std::make_shared<Channel>(0)));

    scan();
    controller.initializeHardware();
    EXPECT_FALSE(controller.masterClockDevice);
    EXPECT_EQ(controller.sampleRate, 10);
    controller.prepareAcquisition();
    controller.initializeAcquisition();
    controller.startAcquisition();
    controller.acquireData();
    EXPECT_EQ(controller.maxSamplesAcquired, 0u);
    controller.stopAcquisition();
}

TEST_F(Controller, StatesAndOrderOfTheWalks) {
    auto device = add("d", instrumentOptions, 100, 5000);
    auto used = channel(*device, "used");
    auto unused = channel(*device, "unused");
    auto off = channel(*device, "off");
    used->used = off->used = true;
    off->enabled = false;
    device->faults = {"fan"};
    scan();
    EXPECT_TRUE(take().empty());
    controller.initializeHardware();
    EXPECT_EQ(take(), (Steps{"d.hardware", "d.sync"}));
    EXPECT_EQ(controller.allChannels, (Channels{used, unused, off}));
    EXPECT_EQ(off->index, 2);
    EXPECT_EQ(controller.sampleRate, 1000);
    EXPECT_TRUE(device->channelView);
    EXPECT_EQ(controller.findDeviceByChannel(unused), device);

    for (int round = 0; round < 2; ++round) {
        controller.applySynchronization();
        controller.prepareAcquisition();
        EXPECT_EQ(take(), (Steps{"d.sync", "d.prepare(true)", "used.prepare", "unused.prepare", "off.prepare"}));
        EXPECT_EQ(device->operationMode, 1);
        EXPECT_FALSE(controller.acqInitialized);
        controller.initializeAcquisition();
        EXPECT_EQ(take(), (Steps{"d.used(true)", "d.initialize(true)", "used.initialize active", "unused.initialize",
                                 "off.initialize"}));
        EXPECT_TRUE(controller.acqInitialized);
        EXPECT_EQ(controller.acquisitionChannels, (Channels{used}));
        controller.startAcquisition();
        EXPECT_TRUE(controller.acqRunning && device->acqRunning);
        EXPECT_TRUE(device->connectionPoint == nullptr);
        take();
        controller.acquireData();
        controller.sendData();
        EXPECT_EQ(take(), (Steps{"d.acquire", "used.before", "used.after", "d.send"}));
        controller.stopAcquisition();
        EXPECT_EQ(take(), (Steps{"d.stop(true)", "d.finalize(true)", "used.finalize", "unused.finalize",
                                 "off.finalize"}));
        EXPECT_FALSE(controller.acqInitialized || controller.acqRunning || controller.acqStopping ||
                     device->acqRunning || device->acqStopping);
    }
}

TEST_F(Controller, AFailedStopKeepsItsFlagsUntilTheNextRound) {
    auto device = add("d");
    scan();
    controller.initializeHardware();
    controller.prepareAcquisition();
    controller.initializeAcquisition();
    controller.startAcquisition();
    device->failStop = true;
    EXPECT_THROW(controller.stopAcquisition(), std::runtime_error);
    EXPECT_TRUE(controller.acqRunning && controller.acqStopping && device->acqStopping);
    controller.prepareAcquisition();
    EXPECT_FALSE(controller.acqRunning || controller.acqStopping || device->acqRunning || device->acqStopping);
}

TEST_F(Controller, ASecondScanReplacesTheTree) {
    std::weak_ptr<Device> old = add("old");
    scan();
    controller.initializeHardware();
    devices.clear();
    auto device = add("new");
    controller.scan();
    EXPECT_EQ(controller.daqDevices, (std::vector<std::shared_ptr<DaqDevice>>{device}));
    EXPECT_TRUE(old.expired());
    controller.scan();
    EXPECT_EQ(controller.daqDevices.size(), 1u);
}

TEST_F(Controller, DataIsLostStrictlyAboveThreeQuartersOfARing) {
    auto device = add("d", plainOptions, 1, 1000);
    auto fast = channel(*device, "fast");
    auto slow = channel(*device, "slow");
    fast->used = slow->used = true;
    scan();
    controller.initializeHardware();
    slow->setSRDiv(4);
    controller.prepareAcquisition();
    controller.initializeAcquisition();
    ASSERT_EQ(fast->buffer->getCapacity(), 2000u);
    ASSERT_EQ(slow->buffer->getCapacity(), 500u);
    struct Case {
        std::uint64_t fast, slow;
        bool lost;
    };
    for (const auto& c : {Case{4000, 1000, false}, Case{5500, 1000, false}, Case{5501, 1000, true},
                          Case{4000, 1375, false}, Case{4000, 1376, true}}) {
        fast->samplesAcquired = c.fast;
        slow->samplesAcquired = c.slow;
        if (c.lost) {
            EXPECT_THROW(controller.acquireData(), DataLostException) << c.fast << " " << c.slow;
        } else {
            EXPECT_NO_THROW(controller.acquireData()) << c.fast << " " << c.slow;
            const std::uint64_t most = std::max(c.fast, 4 * c.slow);
            EXPECT_EQ(controller.maxSamplesAcquired, most);
            EXPECT_EQ(slow->samplesBehind, most - 4 * c.slow);
            EXPECT_EQ(fast->samplesBehind, most - c.fast);
        }
    }
}

TEST_F(Controller, OtherSampleTypesAreLeftOutOfTheDriftTest) {
    auto device = add("d");
    auto sync = channel(*device, "sync");
    auto async = channel(*device, "async");
    async->sampleType = SampleType::Async;
    sync->used = async->used = true;
    scan();
    controller.initializeHardware();
    controller.prepareAcquisition();
    controller.initializeAcquisition();
    async->samplesAcquired = 1000000;
    EXPECT_NO_THROW(controller.acquireData());
    EXPECT_EQ(controller.maxSamplesAcquired, 0u);
}

TEST_F(Controller, AClockThatNeedsAChannelGetsOne) {
    struct Case {
        bool needs, firstEnabled, firstUsed, secondUsed;
        bool firstActive, secondActive;
    };
    for (const auto& c : {Case{true, true, false, false, true, false}, Case{true, false, false, false, false, true},
                          Case{true, true, false, true, false, true}, Case{true, false, true, false, false, true},
                          Case{false, true, false, false, false, false}}) {
        devices.clear();
        auto device = add("d");
        auto async = channel(*device, "async");
        auto first = channel(*device, "first");
        auto second = channel(*device, "second");
        async->sampleType = SampleType::Async;
        scan();
        controller.initializeHardware();
        device->clock().needsChannel = c.needs;
        first->enabled = c.firstEnabled;
        first->used = c.firstUsed;
        second->used = c.secondUsed;
        second->enableFirst = true;  // left over from an earlier run
        controller.prepareAcquisition();
        controller.initializeAcquisition();
        EXPECT_EQ(first->active, c.firstActive);
        EXPECT_EQ(second->active, c.secondActive);
        EXPECT_FALSE(async->active);
    }
}

TEST_F(Controller, CombinationsOfModes) {
    struct Case {
        SynchronizationOption a, b;
        bool valid;
    };
    for (const auto& c : {Case{option(Mode::Standalone), option(Mode::Standalone), false},
                          Case{option(Mode::Standalone, {Mode::Ptp}), option(Mode::Ptp), true},
                          Case{option(Mode::Ptp), option(Mode::Ptp), true},
                          Case{option(Mode::Ptp), option(Mode::Standalone), false},
                          Case{option(Mode::Irig), option(Mode::Pps), false},
                          Case{option(Mode::Standalone), option(Mode::SoftSync), true},
                          Case{option(Mode::SoftSync), option(Mode::SoftSync), true},
                          Case{option(Mode::SoftSync), option(Mode::Ptp), false},
                          Case{option(Mode::Pps, {Mode::Irig}), option(Mode::Irig), true}}) {
        EXPECT_EQ(controller.isValidSyncModeCombination(c.a, c.b), c.valid)
            << static_cast<int>(c.a.first) << " " << static_cast<int>(c.b.first);
    }
}

TEST_F(Controller, OptionsOfOneInstrumentAreAllOfThem) {
    auto device = add("d", instrumentOptions);
    scan();
    EXPECT_EQ(controller.getSynchronizationOptions(), instrumentOptions);
    EXPECT_EQ(*controller.getSynchronizationOptions().begin(), option(Mode::Standalone));
    // The stored option is the one found, which may source more than was asked for.
    device->options = {option(Mode::Standalone, {Mode::Ptp}), option(Mode::Ptp)};
    controller.setSynchronization(option(Mode::Standalone));
    EXPECT_EQ(controller.synchronization, option(Mode::Standalone, {Mode::Ptp}));
    EXPECT_EQ(chosen(device), option(Mode::Standalone, {Mode::Ptp}));
    EXPECT_THROW(controller.setSynchronization(option(Mode::Pps)), std::runtime_error);
    EXPECT_EQ(chosen(device), option(Mode::Standalone, {Mode::Ptp}));
}

TEST_F(Controller, OptionsThatLeaveAnotherDeviceOutAreDropped) {
    auto instrument = add("i", instrumentOptions);
    auto second = add("s", {option(Mode::Ptp), option(Mode::Standalone, {Mode::Ptp})});
    scan();
    EXPECT_EQ(controller.getSynchronizationOptions(instrument),
              (SynchronizationOptions{option(Mode::Standalone, {Mode::Ptp}), option(Mode::Ptp)}));
    EXPECT_EQ(controller.getFirstValidSyncMode(second, option(Mode::Irig)), option(Mode::None));
    controller.setSynchronization(option(Mode::Standalone, {Mode::Ptp}));
    EXPECT_EQ(chosen(instrument), option(Mode::Standalone, {Mode::Ptp}));
    EXPECT_EQ(chosen(second), option(Mode::Ptp));
    EXPECT_FALSE(controller.checkSynchronization(instrument, option(Mode::Standalone), option(Mode::Standalone)));
    EXPECT_FALSE(controller.checkSynchronization(instrument, option(Mode::Standalone),
                                                 option(Mode::Standalone, {Mode::Ptp})));
}

TEST_F(Controller, ASoftwareSynchronisedDeviceGoesWithAnything) {
    auto can = add("can", canOptions);
    auto instrument = add("i", instrumentOptions);
    scan();
    EXPECT_EQ(controller.getSynchronizationOptions(instrument), instrumentOptions);
    EXPECT_EQ(controller.getSynchronizationOptions(can), (SynchronizationOptions{option(Mode::SoftSync)}));
    // Only the second device can take it, yet all get an option.
    controller.setSynchronization(option(Mode::Irig));
    EXPECT_EQ(chosen(instrument), option(Mode::Irig));
    EXPECT_EQ(chosen(can), option(Mode::SoftSync));
    EXPECT_EQ(controller.synchronization, option(Mode::Irig));
    controller.applySynchronization();
    EXPECT_EQ(controller.masterClockDevice, instrument);
    EXPECT_EQ(can->masterClock, instrument->daqClock);
    instrument->clock().time = 4.5;
    can->clock().time = 9.0;
    EXPECT_EQ(controller.getCurrentTime(), 4.5);
}

TEST_F(Controller, DevicesThatGoTogetherInNoWayStopTheStart) {
    add("a", plainOptions);
    add("b", plainOptions);
    scan();
    try {
        controller.initializeHardware();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "No valid sync option");
    }
}

TEST_F(Controller, MasterTimingAndLoopAreChosenInOrder) {
    auto none = add("none", canOptions);
    auto first = add("first", canOptions);
    auto second = add("second", canOptions);
    none->hasClock = false;
    first->hasLoop = second->hasLoop = true;
    second->hasTiming = true;
    scan();
    controller.initializeHardware();
    EXPECT_EQ(controller.masterClockDevice, first);
    EXPECT_EQ(none->masterClock, first->daqClock);
    // The master has no timing, so the first that there is.
    EXPECT_EQ(controller.daqTiming, second->daqTiming);
    EXPECT_EQ(controller.loopDevice, first->daqLoop);
    EXPECT_TRUE(first->daqLoop->isLoopMaster);
    EXPECT_FALSE(second->daqLoop->isLoopMaster);
    // No device takes the option in force: the first with a clock.
    controller.synchronization = option(Mode::Pps);
    controller.applySynchronization();
    EXPECT_EQ(controller.masterClockDevice, first);
    EXPECT_EQ(controller.loopDevice, first->daqLoop);
}

TEST(Synchronization, Queries) {
    const Synchronization source(option(Mode::Standalone, {Mode::Ptp}));
    const Synchronization alone(option(Mode::Standalone));
    EXPECT_EQ(Synchronization().slaveMode, Mode::None);
    EXPECT_TRUE(source.isStandalone() && alone.isStandalone());
    EXPECT_FALSE(source.isOnlyStandalone());
    EXPECT_TRUE(alone.isOnlyStandalone());
    EXPECT_FALSE(source.isSynchronizationModeEqual(alone));
    EXPECT_TRUE(source.hasSynchronizationMode(Mode::Ptp) && source.hasSynchronizationSourceMode(Mode::Ptp));
    EXPECT_FALSE(source.hasSynchronizationSlaveMode(Mode::Ptp));
    EXPECT_TRUE(Synchronization(option(Mode::SoftSync)).isSoftSync());
}
