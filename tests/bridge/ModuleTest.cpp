#include <tuple>

#include "modules/daq/objectmodel/DaqException.h"
#include "tests/bridge/ModuleBench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

struct ModuleTest : testing::Test, protected ModuleBench {
    std::shared_ptr<TestDevice> addDevice(const std::shared_ptr<TestDevice>& device = std::make_shared<TestDevice>()) {
        ModuleBench::addDevice(device);
        return device;
    }
    void start(const Texts& used) {
        ModuleBench::start(used);
        log.entries.clear();
    }
    AsyncChannelPtr async(const char* name) const { return channel(name).asPtr<IAsyncChannel>(); }
    static long heldBy(const AsyncChannelPtr& channel) {
        return ask(channel.get(), &IAsyncChannel::getSamplesAcquired);
    }
};

TEST_F(ModuleTest, LifeOverAnEmptySystem) {
    add();
    configure();
    EXPECT_TRUE(clock && !loop && !absTime);
    start({});
    EXPECT_TRUE(impl->daqController.acqRunning());
    for (auto call : {&IModule::processData, &IModule::preStop, &IModule::stop, &IModule::finalize, &IModule::remove}) {
        EXPECT_EQ((module.get()->*call)(), Errors::Success);
    }
    EXPECT_FALSE(impl->daqController.acqRunning());
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(ask(impl, &IModule::getTaskList), nullptr);
    EXPECT_EQ(ask(impl, &IModule::getInputs), nullptr);
    EXPECT_EQ(ask(impl, &IModule::getConfigurationMode), 3);
    // Without a loop device.
    EXPECT_EQ(impl->initializeLoop(), Errors::Success);
    const auto proc = makeProc([](const BasePtr&) -> ErrCode { return 0; });
    EXPECT_EQ(impl->startLoop(proc.get(), nullptr), Errors::InvalidState);
    EXPECT_EQ(impl->stopLoop(), Errors::Success);
    long interval = 7;
    checkErrorInfo(impl->getInterval(&interval));
    EXPECT_EQ(interval, 0);
}

// A host that has forgotten the data module: nothing is touched.
TEST_F(ModuleTest, AddNeedsADataModule) {
    plug({std::make_shared<TestDevice>()});
    EXPECT_THROW(impl->onAdd(ModuleAddParamsPtr()), InvalidParameterException);
    EXPECT_FALSE(impl->daqController.systemDevice);
}

TEST_F(ModuleTest, ClockProvider) {
    add();
    configure();
    EXPECT_EQ(StringPtr(made<IString>([&](IString** unit) { return clock->getUnit(unit); })), StringPtr("s"));
    for (auto getter : {&IClockProvider::getClockBase, &IClockProvider::getResolution}) {
        const auto base = made<IRatio>([&](IRatio** ratio) { return (clock.get()->*getter)(ratio); });
        EXPECT_EQ(fromValue<Ratio>(asBase(base)), (Ratio{1, 1000000000}));
    }
    // Nobody has a clock.
    EXPECT_EQ(ask(clock.get(), &IClockProvider::getCurrentClock), -1000000000);
    EXPECT_EQ(ask(clock.get(), &IClockProvider::getAcquiredClock), 0);
    impl->daqController.sampleRate = 3000;
    impl->daqController.maxSamplesAcquired = 1000;
    EXPECT_EQ(ask(clock.get(), &IClockProvider::getAcquiredClock), 333333333);
}

using Answers = std::tuple<TrackingEnum, TimingErrorEnum, long, long, unsigned char>;

// The states as they stand before the current time is asked for.
Answers answersOf(IAbsTimeProvider* provider) {
    return {ask(provider, &IAbsTimeProvider::getTracking), ask(provider, &IAbsTimeProvider::getTimingError),
            ask(provider, &IAbsTimeProvider::getStartAbsTime), ask(provider, &IAbsTimeProvider::getCurrentAbsTime),
            ask(provider, &IAbsTimeProvider::getIsAbsTimeSynchronized)};
}

TEST_F(ModuleTest, AbsTimeFollowsTheTimingDevice) {
    auto device = std::make_shared<TestDevice>();
    const auto timing = device->timing = std::make_shared<TestTiming>();
    timing->absTimeSynchronized = true;
    addDevice(device);
    ASSERT_TRUE(absTime);
    const Answers good{TrackingEnum::Yes, TimingErrorEnum::No, 1111, 2222, 1};
    const Answers bad{TrackingEnum::No, TimingErrorEnum::Yes, 1111, 2222, 1};
    EXPECT_EQ(answersOf(impl), good);
    EXPECT_EQ(answersOf(impl), bad);

    // A new run starts from a good state; each cycle asks anew.
    start({});
    EXPECT_EQ(answersOf(impl), good);
    timing->isTracking = true;
    timing->hasError = false;
    timing->queries = 0;
    checkErrorInfo(module->processData());
    EXPECT_EQ(timing->queries, 1);
    EXPECT_EQ(answersOf(impl), good);

    // A clock that fails fails the query, not the cycle. It leaves no text for another failure, and is told when it
    // fails and when it is back.
    const auto linesOf = [&](int cycles) {
        log.entries.clear();
        for (int i = 0; i < cycles; ++i) {
            EXPECT_EQ(module->processData(), Errors::Success);
            EXPECT_EQ(takeErrorMessage(), "");
        }
        return log.entries.size();
    };
    for (int round = 0; round < 2; ++round) {
        timing->fail = true;
        EXPECT_EQ(linesOf(1), 1u);
        EXPECT_NE(log.entries.at(0).text.find("no clock"), std::string::npos) << log.entries.at(0).text;
        EXPECT_EQ(linesOf(50), 0u);
        EXPECT_EQ(ask(impl, &IAbsTimeProvider::getTracking), TrackingEnum::No);
        EXPECT_EQ(ask(impl, &IAbsTimeProvider::getTimingError), TimingErrorEnum::Yes);
        long time = 0;
        EXPECT_EQ(absTime->getCurrentAbsTime(&time), Errors::GeneralError);
        EXPECT_EQ(absTime->getCurrentAbsTime(nullptr), Errors::ArgumentNull);
        EXPECT_EQ(takeErrorMessage(), "");
        timing->fail = false;
        EXPECT_EQ(linesOf(5), 1u);
        EXPECT_EQ(answersOf(impl), good);
    }
    stop();
}

TEST_F(ModuleTest, AbsTimeWithoutATimingDevice) {
    addDevice();
    EXPECT_FALSE(absTime);
    const Answers unknown{TrackingEnum::Yes, TimingErrorEnum::No, -1, -1, 0};
    EXPECT_EQ(answersOf(impl), unknown);
    EXPECT_EQ(answersOf(impl), unknown);
}

TEST_F(ModuleTest, LoopDeviceDrivesTheCycle) {
    auto device = std::make_shared<TestDevice>();
    device->loop = std::make_shared<TestLoop>();
    addDevice(device);
    ASSERT_TRUE(loop);
    EXPECT_EQ(rateOf(dataModule, "CycleRate"), 50);
    EXPECT_EQ(fromValue<int>(dataModule.getPropertyInfo("CycleRate").getMinValue()), 2);
    EXPECT_EQ(fromValue<int>(dataModule.getPropertyInfo("CycleRate").getMaxValue()), 400);
    const auto check = functionOf(dataModule, "CheckCycleRate");
    EXPECT_EQ(fromValue<Ratio>(executeFunc(check, rate(1000))), (Ratio{400, 1}));
    const auto checkAll = functionOf(dataModule, "CheckCycleRateBasedOnDeviceSampleRates");
    const auto arguments = asBase(ListPtr::create({rate(1000), listOf({300, 70})}));
    EXPECT_EQ(fromValue<Ratio>(executeFunc(checkAll, arguments)), (Ratio{70, 1}));
    // Only with a clock of its own the loop follows the user's rate.
    dataModule.setPropertyValue("CycleRate", Ratio{500, 1});
    for (const auto& [mode, cycleRate] : {std::pair(1, 20), {2, 400}}) {
        data.setPropertyValue("OperationMode", mode);
        checkErrorInfo(loop->initializeLoop());
        EXPECT_EQ(device->loop->cycleRate, cycleRate);
    }
    long interval = 0;
    for (const auto& [cycleRate, expected] : {std::pair(20, 50), {300, 3}, {0, 0}}) {
        device->loop->cycleRate = cycleRate;
        checkErrorInfo(loop->getInterval(&interval));
        EXPECT_EQ(interval, expected);
    }
    int cycles = 0;
    const auto proc = makeProc([&](const BasePtr& arguments) -> ErrCode {
        EXPECT_FALSE(arguments);
        ++cycles;
        return Errors::Success;
    });
    checkErrorInfo(loop->startLoop(proc.get(), nullptr));
    ASSERT_TRUE(device->loop->cycle);
    device->loop->cycle();
    EXPECT_EQ(cycles, 1);
    checkErrorInfo(loop->stopLoop());
    EXPECT_FALSE(device->loop->cycle);
    EXPECT_EQ(loop->startLoop(nullptr, nullptr), Errors::InvalidParameter);

    // A loop that nobody has stopped ends with the module.
    checkErrorInfo(loop->startLoop(proc.get(), nullptr));
    forgetProviders();
    module.release();
    EXPECT_FALSE(device->loop->cycle);
}

TEST_F(ModuleTest, OperationModeComesFromTheData) {
    const auto device = addDevice();
    for (const auto& [value, expected] : {std::pair(0, 1), {1, 1}, {2, 2}, {3, 1}, {258, 1}}) {
        data.setPropertyValue("OperationMode", value);
        checkErrorInfo(module->initialize());
        EXPECT_EQ(impl->daqController.operationMode, expected) << value;
        EXPECT_EQ(device->ai->operationMode, expected) << value;
    }
}

// "BeforeStart" of the user and the start that follows prepare once.
TEST_F(ModuleTest, StartDoesNotRepeatBeforeStart) {
    const auto device = addDevice();
    checkErrorInfo(module->initialize());
    reserveMemory(impl->daqStructure, {"Raw 1"});
    checkErrorInfo(dataModule.getPropertyValue("BeforeStart").asPtr<IProcObject>()->dispatch(nullptr));
    const auto buffer = device->ai->channels[0]->buffer;
    checkErrorInfo(module->start());
    EXPECT_EQ(device->ai->channels[0]->buffer, buffer);
    stop();
}

TEST_F(ModuleTest, StagesGoOnAfterAnException) {
    const auto device = addDevice();
    start({"Async in", "Async out"});
    device->ai->onAcquire = [] { throw std::runtime_error("bus off"); };
    device->ai->onSend = [] { throw std::runtime_error("no line"); };
    EXPECT_EQ(module->processData(), Errors::Success);
    // The message names the function that logs and its line.
    ASSERT_FALSE(log.entries.empty());
    const auto entry = log.entries.back();
    EXPECT_EQ(entry.function.find_first_of("( "), std::string::npos);
    EXPECT_EQ(entry.place.find("[" + entry.function + ":"), 0u);
    EXPECT_EQ(log.take(), (Texts{"Exception in DAQ::acquireData: bus off", "Exception in DAQ::sendData: no line"}));

    struct Silent : std::exception {
        const char* what() const noexcept override { return nullptr; }
    };
    device->ai->onAcquire = [] { throw Silent(); };
    device->ai->onSend = [] {};
    EXPECT_EQ(module->processData(), Errors::Success);
    EXPECT_EQ(log.take(), (Texts{"Exception in DAQ::acquireData: (null) (2 failures so far)",
                                 "DAQ::sendData works again after 1 failure"}));
    // What fails in each cycle in the same way is told once.
    EXPECT_EQ(module->processData(), Errors::Success);
    EXPECT_EQ(log.take(), Texts());

    device->ai->onAcquire = [] {};
    // An output whose ring is full already.
    int value = 1;
    checkErrorInfo(async("Async out")->addSample(1, &value));
    device->async->onAcquire = [&] { device->async->output->samplesThisCycle = 1000; };
    EXPECT_EQ(module->processData(), Errors::Success);
    EXPECT_EQ(log.take(), (Texts{"DAQ::acquireData works again after 3 failures",
                                 "Exception while transfering data from RT async channels to DAQ: Data lost"}));
    EXPECT_EQ(device->ai->sendCount, 4);

    // What is no std::exception ends the cycle as a failure.
    device->ai->onAcquire = [] { throw 5; };
    EXPECT_EQ(module->processData(), Errors::GeneralError);
    EXPECT_EQ(device->ai->sendCount, 4);
    stop();
}

// Numbers that count up, each half a second behind the one before it.
struct AsyncTest : ModuleTest {
    // With the next cycle the device delivers so many.
    void deliver(int count) {
        device->async->onAcquire = [this, count] {
            for (int i = 0; i < count; ++i, ++next) {
                device->async->input->samplesThisCycle = 0;
                device->async->input->addSample(next, next * 0.5);
            }
        };
        checkErrorInfo(module->processData());
        device->async->onAcquire = [] {};
    }
    void addToHost(const char* name, int count) {
        for (int i = 0; i < count; ++i, ++next) {
            checkErrorInfo(async(name)->addSample(next * 500000000L, &next));
        }
    }

    std::shared_ptr<TestDevice> device = std::make_shared<TestDevice>();
    int next = 1;
};

TEST_F(AsyncTest, SamplesReachTheHost) {
    addDevice(device);
    start({"Async in"});
    const auto host = async("Async in");
    deliver(3);
    EXPECT_EQ(heldBy(host), 3);
    deliver(3);
    EXPECT_EQ(heldBy(host), 6);
    for (int i = 0; i < 6; ++i) {
        long timestamp = 0;
        void* sample = nullptr;
        checkErrorInfo(host->getTimestampAtPos(static_cast<size_t>(i), &timestamp));
        checkErrorInfo(host->getSampleAddressAtPos(static_cast<size_t>(i), &sample));
        EXPECT_EQ(timestamp, (i + 1) * 500000000L);
        EXPECT_EQ(*static_cast<int*>(sample), i + 1);
    }
    deliver(0);
    EXPECT_EQ(heldBy(host), 6);

    // Over the end of both rings.
    deliver(14);
    EXPECT_EQ(heldBy(host), 20);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-1), 20.0);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-14), 7.0);

    // 40 into a ring of 16, as after cycles whose stage was broken off: what is lost is gone, the rest comes once.
    deliver(40);
    EXPECT_EQ(heldBy(host), 36);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-1), 60.0);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-16), 45.0);
    deliver(0);
    EXPECT_EQ(heldBy(host), 36);
    deliver(1);
    EXPECT_EQ(heldBy(host), 37);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-1), 61.0);
    const auto lost = [&] { return countOf(channel("Async in"), "LostSamples"); };
    EXPECT_EQ(lost(), 24);
    // The first loss is told, and the sum once the samples flow again.
    const auto told = [](int count, const char* rest) {
        return "Channel \"Async in\" has lost " + std::to_string(count) + " asynchronous samples in this run" + rest;
    };
    const char* const begins = ": its ring no longer held them when they were to be passed on";
    EXPECT_EQ(log.take(), Texts{told(24, begins)});
    deliver(20);
    deliver(17);
    deliver(1);
    EXPECT_EQ(lost(), 29);
    EXPECT_EQ(log.take(), (Texts{told(28, begins), told(29, "; its samples are passed on again")}));
    stop();

    // The next run counts from 0 on both sides.
    configure();
    start({"Async in"});
    deliver(1);
    EXPECT_EQ(heldBy(host), 1);
    EXPECT_EQ(lost(), 0);
    stop();
}

TEST_F(AsyncTest, SamplesReachTheDevice) {
    addDevice(device);
    start({"Async out"});
    auto& output = *device->async->output;
    for (const int count : {5, 0, 9, 6}) {
        addToHost("Async out", count);
        checkErrorInfo(module->processData());
        EXPECT_EQ(output.samplesAcquired.get(), static_cast<uint64_t>(next - 1));
        EXPECT_EQ(output.getCurrentSample(), next - 1.0);
        EXPECT_EQ(output.getCurrentTime(), (next - 1) * 0.5);
    }
    EXPECT_EQ(output.getSampleAtRelativePos(-6), next - 6.0);
    EXPECT_EQ(output.getTimeAtRelativePos(-6), (next - 6) * 0.5);
    EXPECT_TRUE(log.take().empty());

    // More than both rings hold: the 16 newest come, 15 of them in this cycle, which the device's ring takes.
    addToHost("Async out", 40);
    const auto before = output.samplesAcquired.get();
    checkErrorInfo(module->processData());
    EXPECT_EQ(output.samplesAcquired.get(), before + 15);
    EXPECT_EQ(log.take(),
              (Texts{"Channel \"Async out\" has lost 24 asynchronous samples in this run: its ring no longer "
                     "held them when they were to be passed on",
                     "Exception while transfering data from RT async channels to DAQ: Data lost"}));
    checkErrorInfo(module->processData());
    EXPECT_EQ(output.samplesAcquired.get(), before + 16);
    EXPECT_EQ(output.getCurrentSample(), next - 1.0);
    stop();
}

// An output that the host doesn't use has no memory on the device's side, whatever the host's side gets. And an input
// takes nothing from the host.
TEST_F(AsyncTest, NothingFlowsWhereNothingShould) {
    addDevice(device);
    start({"Async in"});
    ASSERT_FALSE(device->async->output->active);
    channel("Async out").setUsed(true);
    checkErrorInfo(channel("Async out")->initializeAcquisition());
    addToHost("Async out", 1);
    addToHost("Async in", 1);
    checkErrorInfo(module->processData());
    EXPECT_EQ(device->async->output->samplesAcquired.get(), 0u);
    EXPECT_EQ(device->async->input->samplesAcquired.get(), 0u);
    EXPECT_TRUE(log.take().empty());
    stop();
}

}  // namespace
