#include <gtest/gtest.h>

#include <tuple>

#include "RecordingDevice.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericDeviceFactory.h"
#include "modules/daq/objectmodel/GenericInterface.h"

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
const SynchronizationOptions ptpOptions{option(Mode::Standalone, {Mode::Ptp}), option(Mode::Ptp)};
const SynchronizationOptions canOptions{option(Mode::SoftSync), option(Mode::Standalone)};
const SynchronizationOptions plainOptions{option(Mode::Standalone)};

template <class Call>
std::string failureOf(Call&& call) {
    try {
        call();
        return "";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

struct TestClock : DaqClock {
    explicit TestClock(double time) : time(time) {}
    double getCurrentTime(bool) override { return time; }
    double time;
};

struct TestDevice : Recorded<DaqDevice> {
    TestDevice(Steps& steps, const std::string& id, const SynchronizationOptions& options)
        : Recorded(steps, id), options(options) {}
    SynchronizationOptions getSynchronizationOptions() override { return options; }
    SynchronizationOption chosen() const { return {synchronization.slaveMode, synchronization.sourceModes}; }

    SynchronizationOptions options;
};

struct At10 {
    std::string interfaceName = "FixedInterface";
    std::string connectionPointName = "ID_10";
};

struct Controller : testing::Test {
    std::shared_ptr<TestDevice> add(const std::string& id, const SynchronizationOptions& options = plainOptions,
                                    int minRate = 0, int maxRate = Device::noMaxRate) {
        auto device = std::make_shared<TestDevice>(steps, id, options);
        device->minRate = minRate;
        device->maxRate = maxRate;
        devices.push_back(device);
        return device;
    }
    std::shared_ptr<RecordedChannel> channel(Device& device, const std::string& id,
                                             SampleType type = SampleType::Sync) {
        auto made = std::make_shared<RecordedChannel>(steps, static_cast<int>(device.channels.size()), id);
        made->sampleType = type;
        device.channels.push_back(made);
        return made;
    }
    // The controller has a root with the devices added so far.
    void build() {
        controller.systemDevice = std::make_shared<SystemDevice>();
        controller.systemDevice->assign(devices.begin(), devices.end());
        controller.systemDevice->initialize();
        controller.daqDevices.assign(devices.begin(), devices.end());
    }
    void initializeAcquisition() {
        controller.prepareAcquisition();
        controller.initializeAcquisition();
    }
    Steps take() { return std::exchange(steps, {}); }

    Steps steps;
    std::vector<std::shared_ptr<TestDevice>> devices;
    DaqController controller;
};

}  // namespace

TEST_F(Controller, StatesAndOrderOfTheWalks) {
    auto device = add("d", instrumentOptions, 100, 5000);
    auto used = channel(*device, "used");
    auto unused = channel(*device, "unused");
    auto off = channel(*device, "off");
    used->used = off->used = true;
    off->enabled = false;
    device->faults = {"fan"};  // a fault that the check finds doesn't stop the start
    build();
    EXPECT_TRUE(take().empty());
    controller.initializeHardware();
    EXPECT_EQ(take(), (Steps{"d.hardware", "d.sync"}));
    EXPECT_EQ(controller.systemDevice->checkHardware(), device->faults);
    EXPECT_EQ(controller.allChannels, (Channels{used, unused, off}));
    EXPECT_EQ(off->index, 2);
    EXPECT_EQ(controller.sampleRate, 1000);
    EXPECT_TRUE(device->channelView);
    EXPECT_EQ(controller.findDeviceByChannel(unused), device);

    for (int round = 0; round < 2; ++round) {
        controller.applySynchronization();
        controller.prepareAcquisition();
        // Each preparation begins with the way back, which gives memory back.
        EXPECT_EQ(take(), (Steps{"d.sync", "used.finalize", "unused.finalize", "off.finalize", "d.prepare(true)",
                                 "used.prepare", "unused.prepare", "off.prepare"}));
        EXPECT_EQ(device->operationMode, 1);
        EXPECT_FALSE(controller.acqInitialized());
        controller.initializeAcquisition();
        EXPECT_EQ(take(),
                  (Steps{"used.finalize", "unused.finalize", "off.finalize", "d.used(true)", "d.initialize(true)",
                         "used.initialize active", "unused.initialize", "off.initialize"}));
        EXPECT_TRUE(controller.acqInitialized());
        EXPECT_EQ(controller.acquisitionChannels, (Channels{used}));
        controller.startAcquisition();
        EXPECT_TRUE(controller.acqRunning() && device->acqRunning);
        controller.acquireData();
        controller.sendData();
        EXPECT_EQ(take(), (Steps{"d.start(true)", "d.acquire", "used.before", "used.after", "d.send"}));
        controller.stopAcquisition();
        EXPECT_EQ(take(),
                  (Steps{"d.stop(true)", "d.finalize(true)", "used.finalize", "unused.finalize", "off.finalize"}));
        EXPECT_FALSE(controller.acqInitialized() || controller.acqRunning() || controller.acqStopping() ||
                     device->acqRunning || device->acqStopping);
    }
}

// Whatever step fails: the caller hears why, everything is walked on the way back, and the next round is a good one.
TEST_F(Controller, AStepThatFailsLeavesNothingOn) {
    auto device = add("d", ptpOptions);
    auto second = add("second", ptpOptions);
    channel(*device, "c")->used = true;
    build();
    controller.initializeHardware();
    for (const char* step : {"prepare", "initialize", "start", "stop", "finalize"}) {
        SCOPED_TRACE(step);
        device->failing = step;
        device->aborts = second->aborts = 0;
        const std::string failure = failureOf([&] {
            controller.applySynchronization();
            controller.prepareAcquisition();
            controller.initializeAcquisition();
            device->aborts = second->aborts = 0;
            controller.startAcquisition();
            controller.stopAcquisition();
        });
        EXPECT_EQ(failure, std::string(step) + " fails");
        EXPECT_EQ(device->aborts, second->aborts);
        EXPECT_GT(device->aborts, 0);
        EXPECT_EQ(controller.phase(),
                  step == std::string("prepare") ? AcquisitionPhase::Scanned : AcquisitionPhase::Prepared);
        EXPECT_FALSE(device->acqRunning || device->acqStopping || second->acqRunning || second->acqStopping);
        device->failing.clear();
        initializeAcquisition();
        controller.startAcquisition();
        controller.stopAcquisition();
    }
    // A tree that goes in the middle of a run is taken back first.
    initializeAcquisition();
    controller.startAcquisition();
    device->aborts = second->aborts = 0;
    controller.reset();
    EXPECT_EQ(device->aborts, 1);
    EXPECT_EQ(second->aborts, 1);
}

// Of the devices that fail in a cycle the first one is told of, and what the others have brought counts.
TEST_F(Controller, ADeviceThatFailsCostsTheOthersNoSamples) {
    auto first = add("first", ptpOptions, 1, 1000);
    auto second = add("second", ptpOptions, 1, 1000);
    const auto early = channel(*first, "early");
    const auto late = channel(*second, "late");
    early->used = late->used = true;
    build();
    controller.initializeHardware();
    initializeAcquisition();
    controller.startAcquisition();
    take();
    late->samplesAcquired = 100;
    early->samplesAcquired = 70;
    first->failing = second->failing = "acquire";
    EXPECT_EQ(failureOf([&] { controller.acquireData(); }), "first fails");
    EXPECT_EQ(take(),
              (Steps{"first.acquire", "early.before", "early.after", "second.acquire", "late.before", "late.after"}));
    EXPECT_EQ(controller.maxSamplesAcquired, 100u);
    EXPECT_EQ(early->samplesBehind, 30u);
    late->samplesAcquired = 10000;  // so far apart that data is lost: the device's failure is the first
    EXPECT_EQ(failureOf([&] { controller.acquireData(); }), "first fails");
    first->failing.clear();
    second->failing.clear();
    EXPECT_THROW(controller.acquireData(), DataLostException);
}

TEST_F(Controller, EachScanMakesATreeOfItsOwn) {
    controller.interfaces.push_back(std::make_shared<GenericInterface<FixedInterfaceHelper, FixedInterfacePort>>());
    controller.interfaces.initialize();
    controller.daqFactory.deviceFactories = {std::make_shared<GenericDeviceFactory<DaqDevice, At10>>()};
    std::weak_ptr<Device> old;
    for (int round = 0; round < 2; ++round) {
        controller.scan();
        EXPECT_TRUE(old.expired());
        EXPECT_TRUE(controller.allChannels.empty() && controller.acquisitionChannels.empty());
        ASSERT_EQ(controller.daqDevices.size(), 1u);
        old = controller.daqDevices.front();
        EXPECT_EQ(old.lock()->connectionPoint->name, "ID_10");
        recording::syncChannel(*old.lock());
        controller.initializeHardware();
        initializeAcquisition();
    }
}

TEST_F(Controller, DataIsLostStrictlyAboveThreeQuartersOfARing) {
    auto device = add("d", plainOptions, 1, 1000);
    auto fast = channel(*device, "fast");
    auto slow = channel(*device, "slow");
    auto async = channel(*device, "async", SampleType::Async);
    fast->used = slow->used = async->used = true;
    build();
    controller.initializeHardware();
    slow->setSRDiv(4);
    slow->bufferGranularity = 375;
    initializeAcquisition();
    ASSERT_EQ(fast->buffer->getCapacity(), 2000u);
    ASSERT_EQ(slow->buffer->getCapacity(), 375u);  // of every fourth: the limit is at 1125
    async->samplesAcquired = 1000000;              // has no place in the test
    for (const auto& [ofFast, ofSlow, lost] : {std::tuple{4000u, 1000u, false},
                                               {5125u, 1000u, false},
                                               {5126u, 1000u, true},
                                               {4000u, 1281u, false},
                                               {4000u, 1282u, true},
                                               {0u, 0u, false}}) {
        fast->samplesAcquired = ofFast;
        slow->samplesAcquired = ofSlow;
        if (lost) {
            EXPECT_THROW(controller.acquireData(), DataLostException) << ofFast << " " << ofSlow;
        } else {
            EXPECT_NO_THROW(controller.acquireData()) << ofFast << " " << ofSlow;
            const auto most = std::max(ofFast, 4 * ofSlow);
            EXPECT_EQ(controller.maxSamplesAcquired, most);
            EXPECT_EQ(slow->samplesBehind, most - 4 * ofSlow);
            EXPECT_EQ(fast->samplesBehind, most - ofFast);
        }
    }
}

TEST_F(Controller, AClockThatNeedsAChannelGetsOne) {
    for (const auto& [needs, firstEnabled, firstUsed, secondUsed, firstActive, secondActive] :
         {std::tuple{true, true, false, false, true, false},
          {true, false, false, false, false, true},
          {true, true, false, true, false, true},
          {true, false, true, false, false, true},
          {false, true, false, false, false, false}}) {
        devices.clear();
        auto device = add("d");
        auto async = channel(*device, "async", SampleType::Async);
        auto first = channel(*device, "first");
        auto second = channel(*device, "second");
        build();
        controller.initializeHardware();
        device->daqClock->needsChannel = needs;
        first->enabled = firstEnabled;
        first->used = firstUsed;
        second->used = secondUsed;
        second->enableFirst = true;  // left over from an earlier run
        initializeAcquisition();
        EXPECT_EQ(first->active, firstActive);
        EXPECT_EQ(second->active, secondActive);
        EXPECT_FALSE(async->active);
    }
}

TEST_F(Controller, AnOptionIsChosenForAllDevicesTogether) {
    const auto refused = option(Mode::None);
    const auto alone = option(Mode::Standalone);
    const auto source = option(Mode::Standalone, {Mode::Ptp});
    const auto ptp = option(Mode::Ptp);
    const auto pps = option(Mode::Pps);
    const auto irig = option(Mode::Irig);
    const auto soft = option(Mode::SoftSync);
    using Offered = std::vector<SynchronizationOptions>;
    using Chosen = std::vector<SynchronizationOption>;
    const SynchronizationOptions five{alone, source, soft, irig, pps, ptp};
    const SynchronizationOptions three{source, soft, ptp};
    // What the devices offer, what they have in common, what is wanted and becomes of it, and what each one has then.
    const std::tuple<const char*, Offered, SynchronizationOptions, SynchronizationOption, SynchronizationOption, Chosen>
        cases[] = {
            {"no device", {}, plainOptions, alone, alone, {}},
            {"no device that sources", {}, plainOptions, source, refused, {}},
            {"one device", {instrumentOptions}, instrumentOptions, pps, pps, {pps}},
            {"more sources than asked for", {ptpOptions}, ptpOptions, alone, source, {source}},
            {"a source that is missing", {plainOptions}, plainOptions, source, refused, {refused}},
            {"a mode that is missing", {ptpOptions}, ptpOptions, pps, refused, {refused}},
            {"options that leave one out", {instrumentOptions, ptpOptions}, ptpOptions, alone, source, {source, ptp}},
            {"only the second can", {canOptions, instrumentOptions}, five, irig, irig, {soft, irig}},
            {"nobody goes with one that follows", {canOptions, ptpOptions}, three, soft, refused, {refused, refused}},
            {"in no way", {plainOptions, plainOptions}, {}, alone, refused, {refused, refused}}};
    for (const auto& [what, offered, common, wanted, stored, chosen] : cases) {
        SCOPED_TRACE(what);
        devices.clear();
        for (const auto& options : offered) {
            add("d", options);
        }
        build();
        controller.synchronization = refused;
        EXPECT_EQ(controller.getSynchronizationOptions(), common);
        EXPECT_EQ(failureOf([&, option = wanted] { controller.setSynchronization(option); }),
                  stored == refused ? "not valid synchronization" : "");
        if (common.empty()) {
            EXPECT_EQ(failureOf([&] { controller.initializeHardware(); }), "No valid sync option");
        }
        EXPECT_EQ(controller.synchronization, stored);
        Chosen found;
        std::ranges::transform(devices, std::back_inserter(found), [](const auto& each) { return each->chosen(); });
        EXPECT_EQ(found, chosen);
    }
}

TEST_F(Controller, MasterTimingAndLoopAreChosenInOrder) {
    auto none = add("none", canOptions);
    auto first = add("first", canOptions);
    auto second = add("second", canOptions);
    build();
    none->daqClock.reset();
    second->daqTiming = std::make_shared<recording::PlainTiming>();
    for (const auto& device : {first, second}) {
        device->daqLoop = std::make_shared<recording::PlainLoop>();
        device->daqClock = std::make_shared<TestClock>(device == second ? 4.5 : 9.0);
    }
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
    // A device that takes it comes before earlier ones.
    second->options = instrumentOptions;
    controller.applySynchronization();
    EXPECT_EQ(controller.masterClockDevice, second);
    EXPECT_EQ(first->masterClock, second->daqClock);
    EXPECT_EQ(controller.loopDevice, first->daqLoop);
    EXPECT_EQ(controller.getCurrentTime(), 4.5);
}
