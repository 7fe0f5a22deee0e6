#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "modules/daq/DaqModuleImpl.h"
#include "modules/daq/objectmodel/DaqException.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

constexpr int error = 4;
using Texts = std::vector<std::string>;

class OpenModule : public DaqModuleImpl {
public:
    using DaqModuleImpl::clockBase;
    using DaqModuleImpl::daqController;
    using DaqModuleImpl::daqStructure;
};

// Parameters of a host that has forgotten the data module.
class ParametersWithoutDataModule : public ObjectImpl<IModuleAddParams> {
public:
    explicit ParametersWithoutDataModule(const DataPtr& data) : data_(data) {}
    ErrCode getData(IData** data) override {
        *data = DataPtr(data_).detach();
        return Errors::Success;
    }
    ErrCode getDataModule(IDataModule** module) override {
        *module = nullptr;
        return Errors::Success;
    }
    ErrCode getAcquisitionSync(IAcquisitionSync** sync) override {
        *sync = nullptr;
        return Errors::Success;
    }

private:
    DataPtr data_;
};

// The module object in a host's tree, driven call by call.
class ModuleTest : public testing::Test {
protected:
    ModuleTest() : impl(new OpenModule()), module(ObjectPtr<IModule>::take(impl)) {
        IData* newData = nullptr;
        checkErrorInfo(createData(&newData, StringPtr("Data").get(), 10));
        data = ObjectPtr<IData>::take(newData);
        IDataModule* newModule = nullptr;
        checkErrorInfo(createDataModule(&newModule, StringPtr("Module").get()));
        dataModule = ObjectPtr<IDataModule>::take(newModule);
        checkErrorInfo(data->addDataModule(dataModule.get()));
        IAcquisitionSync* newSync = nullptr;
        checkErrorInfo(createAcquisitionSync(&newSync));
        sync = ObjectPtr<IAcquisitionSync>::take(newSync);
    }
    ~ModuleTest() override {
        forgetProviders();
        devicesToFind().clear();
    }

    ErrCode addTo(const DataModulePtr& target) {
        IModuleAddParams* made = nullptr;
        checkErrorInfo(createModuleAddParams(&made, data.get(), target.get(), sync.get()));
        const auto params = ObjectPtr<IModuleAddParams>::take(made);
        return module->add(params.get());
    }
    void add(const std::vector<std::shared_ptr<Device>>& devices) {
        int place = 10;
        for (const auto& device : devices) {
            devicesToFind().emplace_back("ID_" + std::to_string(place++), device);
        }
        checkErrorInfo(addTo(dataModule));
    }
    void configure() {
        IModuleConfig* made = nullptr;
        checkErrorInfo(createModuleConfig(&made, data.get()));
        const auto config = ObjectPtr<IModuleConfig>::take(made);
        checkErrorInfo(module->configure(config.get()));
        IClockProvider* newClock = nullptr;
        ILoopProvider* newLoop = nullptr;
        IAbsTimeProvider* newAbsTime = nullptr;
        checkErrorInfo(zornGetRegisteredProviders(config.get(), &newClock, &newLoop, &newAbsTime));
        clock = ObjectPtr<IClockProvider>::take(newClock);
        loop = ObjectPtr<ILoopProvider>::take(newLoop);
        absTime = ObjectPtr<IAbsTimeProvider>::take(newAbsTime);
    }
    // The host holds the module as its clock until the next configuration.
    void forgetProviders() {
        IModuleConfig* made = nullptr;
        checkErrorInfo(createModuleConfig(&made, data.get()));
        ObjectPtr<IModuleConfig>::take(made).release();
        clock.release();
        loop.release();
        absTime.release();
    }
    // Up to the first cycle; the channels of these names are used.
    void start(const std::vector<std::string>& used) {
        checkErrorInfo(module->initialize());
        for (const auto& [channel, hostChannel] : impl->daqStructure.getChannelsMap()) {
            hostChannel.setUsed(std::find(used.begin(), used.end(), channel->name) != used.end());
            checkErrorInfo(hostChannel->initializeAcquisition());
        }
        checkErrorInfo(module->start());
        checkErrorInfo(module->postStart());
        log.entries.clear();
    }
    void run(const std::vector<std::string>& used) {
        configure();
        start(used);
    }
    ChannelPtr<> channel(const char* name) const { return findChannel(dataModule.getRootFolder(), name); }
    AsyncChannelPtr async(const char* name) const { return channel(name).asPtr<IAsyncChannel>(); }
    static long heldBy(const AsyncChannelPtr& channel) {
        long count = -1;
        checkErrorInfo(channel->getSamplesAcquired(&count));
        return count;
    }

    OpenModule* impl;
    ObjectPtr<IModule> module;
    DataPtr data;
    DataModulePtr dataModule;
    AcquisitionSyncPtr sync;
    ObjectPtr<IClockProvider> clock;
    ObjectPtr<ILoopProvider> loop;
    ObjectPtr<IAbsTimeProvider> absTime;
    LogCapture log;
};

TEST_F(ModuleTest, LifeOverAnEmptySystem) {
    add({});
    configure();
    EXPECT_TRUE(clock);
    EXPECT_FALSE(loop);
    EXPECT_FALSE(absTime);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(module->initialize(), Errors::Success);
        ASSERT_EQ(module->start(), Errors::Success);
        ASSERT_EQ(module->postStart(), Errors::Success);
        EXPECT_TRUE(impl->daqController.acqRunning);
        for (int cycle = 0; cycle < 3; ++cycle) {
            ASSERT_EQ(module->processData(), Errors::Success);
        }
        ASSERT_EQ(module->preStop(), Errors::Success);
        ASSERT_EQ(module->stop(), Errors::Success);
        EXPECT_FALSE(impl->daqController.acqRunning);
        ASSERT_EQ(module->finalize(), Errors::Success);
    }
    ASSERT_EQ(module->remove(), Errors::Success);
    EXPECT_TRUE(log.take(error).empty());

    IList* tasks = reinterpret_cast<IList*>(this);
    EXPECT_EQ(module->getTaskList(&tasks), Errors::Success);
    EXPECT_EQ(tasks, nullptr);
    IInputGroups* inputs = reinterpret_cast<IInputGroups*>(this);
    EXPECT_EQ(module->getInputs(&inputs), Errors::Success);
    EXPECT_EQ(inputs, nullptr);
    ConfigurationMode mode = 0;
    EXPECT_EQ(module->getConfigurationMode(&mode), Errors::Success);
    EXPECT_EQ(mode, 3);
}

TEST_F(ModuleTest, NullOutputs) {
    const BasePtr object(module.get());
    const auto clockProvider = object.asPtr<IClockProvider>();
    const auto timeProvider = object.asPtr<IAbsTimeProvider>();
    EXPECT_EQ(clockProvider->getUnit(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(clockProvider->getClockBase(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(clockProvider->getResolution(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(clockProvider->getCurrentClock(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(clockProvider->getAcquiredClock(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(timeProvider->getStartAbsTime(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(timeProvider->getCurrentAbsTime(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(timeProvider->getTracking(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(timeProvider->getTimingError(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(timeProvider->getIsAbsTimeSynchronized(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(object.asPtr<ILoopProvider>()->getInterval(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(module->getTaskList(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(module->getInputs(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(module->getConfigurationMode(nullptr), Errors::ArgumentNull);
}

TEST_F(ModuleTest, BadCallsFailWithAText) {
    EXPECT_EQ(module->add(nullptr), Errors::InvalidParameter);
    EXPECT_FALSE(takeText().empty());
    EXPECT_EQ(module->configure(nullptr), Errors::InvalidState);
    EXPECT_EQ(module->initialize(), Errors::InvalidState);
    EXPECT_EQ(module->start(), Errors::InvalidState);
    EXPECT_EQ(module->processData(), Errors::InvalidState);
    EXPECT_EQ(module->stop(), Errors::InvalidState);
    takeText();

    add({});
    EXPECT_EQ(addTo(dataModule), Errors::InvalidState);
    EXPECT_NE(takeText().find("added already"), std::string::npos);
    EXPECT_EQ(module->configure(nullptr), Errors::InvalidParameter);
    takeText();
}

TEST_F(ModuleTest, AddWithoutADataModuleTouchesNothing) {
    devicesToFind().emplace_back("ID_10", std::make_shared<TestDevice>());
    const auto params = ObjectPtr<IModuleAddParams>::take(new ParametersWithoutDataModule(data));
    EXPECT_EQ(module->add(params.get()), Errors::InvalidParameter);
    takeText();
    EXPECT_FALSE(impl->daqController.systemDevice);
}

TEST_F(ModuleTest, ClockProvider) {
    add({});
    configure();
    IString* unit = nullptr;
    checkErrorInfo(clock->getUnit(&unit));
    EXPECT_EQ(StringPtr(ObjectPtr<IString>::take(unit)), StringPtr("s"));
    for (auto getter : {&IClockProvider::getClockBase, &IClockProvider::getResolution}) {
        IRatio* base = nullptr;
        checkErrorInfo((clock.get()->*getter)(&base));
        EXPECT_EQ(fromValue<Ratio>(BasePtr::take(base)), (Ratio{1, 1000000000}));
    }
    // Nobody has a clock.
    long ticks = 0;
    checkErrorInfo(clock->getCurrentClock(&ticks));
    EXPECT_EQ(ticks, -1000000000);
    checkErrorInfo(clock->getAcquiredClock(&ticks));
    EXPECT_EQ(ticks, 0);
    impl->daqController.sampleRate = 3000;
    impl->daqController.maxSamplesAcquired = 1000;
    checkErrorInfo(clock->getAcquiredClock(&ticks));
    EXPECT_EQ(ticks, 333333333);
}

TEST_F(ModuleTest, AbsoluteTimeFollowsTheTimingDevice) {
    auto device = std::make_shared<TestDevice>();
    device->timing = std::make_shared<TestTiming>();
    device->timing->absTimeSynchronized = true;
    add({device});
    configure();
    ASSERT_TRUE(absTime);

    const auto states = [&] {
        TrackingEnum tracking{};
        TimingErrorEnum timingError{};
        checkErrorInfo(absTime->getTracking(&tracking));
        checkErrorInfo(absTime->getTimingError(&timingError));
        return std::pair(tracking, timingError);
    };
    EXPECT_EQ(states(), std::pair(TrackingEnum::Yes, TimingErrorEnum::No));
    long time = 0;
    checkErrorInfo(absTime->getStartAbsTime(&time));
    EXPECT_EQ(time, 1111);
    checkErrorInfo(absTime->getCurrentAbsTime(&time));
    EXPECT_EQ(time, 2222);
    EXPECT_EQ(states(), std::pair(TrackingEnum::No, TimingErrorEnum::Yes));
    unsigned char synchronized = 0;
    checkErrorInfo(absTime->getIsAbsTimeSynchronized(&synchronized));
    EXPECT_EQ(synchronized, 1);

    // A new run starts from a good state; each cycle asks anew.
    start({});
    EXPECT_EQ(states(), std::pair(TrackingEnum::Yes, TimingErrorEnum::No));
    device->timing->queries = 0;
    checkErrorInfo(module->processData());
    EXPECT_EQ(device->timing->queries, 1);
    EXPECT_EQ(states(), std::pair(TrackingEnum::No, TimingErrorEnum::Yes));

    // A clock that fails fails the query, not the cycle.
    device->timing->fail = true;
    EXPECT_EQ(absTime->getCurrentAbsTime(&time), Errors::GeneralError);
    EXPECT_EQ(takeText(), "no clock");
    EXPECT_EQ(module->processData(), Errors::Success);
    EXPECT_EQ(takeText(), "");
    checkErrorInfo(module->stop());
}

TEST_F(ModuleTest, NoTimingDeviceMeansNoAbsoluteTime) {
    add({std::make_shared<TestDevice>()});
    configure();
    EXPECT_FALSE(absTime);
    const auto provider = BasePtr(module.get()).asPtr<IAbsTimeProvider>();
    long time = 0;
    checkErrorInfo(provider->getStartAbsTime(&time));
    EXPECT_EQ(time, -1);
    checkErrorInfo(provider->getCurrentAbsTime(&time));
    EXPECT_EQ(time, -1);
    TrackingEnum tracking{};
    checkErrorInfo(provider->getTracking(&tracking));
    EXPECT_EQ(tracking, TrackingEnum::Yes);
    unsigned char synchronized = 1;
    checkErrorInfo(provider->getIsAbsTimeSynchronized(&synchronized));
    EXPECT_EQ(synchronized, 0);
}

TEST_F(ModuleTest, LoopDeviceDrivesTheCycle) {
    auto device = std::make_shared<TestDevice>();
    device->loop = std::make_shared<TestLoop>();
    add({device});
    configure();
    ASSERT_TRUE(loop);
    data.setPropertyValue("OperationMode", 1);
    checkErrorInfo(loop->initializeLoop());
    long interval = 0;
    checkErrorInfo(loop->getInterval(&interval));
    EXPECT_EQ(interval, 50);
    device->loop->cycleRate = 300;
    checkErrorInfo(loop->getInterval(&interval));
    EXPECT_EQ(interval, 3);
    device->loop->cycleRate = 0;
    checkErrorInfo(loop->getInterval(&interval));
    EXPECT_EQ(interval, 0);

    int cycles = 0;
    bool withArguments = false;
    const auto proc = makeProc([&](const BasePtr& arguments) -> ErrCode {
        ++cycles;
        withArguments = static_cast<bool>(arguments);
        return Errors::Success;
    });
    checkErrorInfo(loop->startLoop(proc.get(), nullptr));
    ASSERT_TRUE(device->loop->cycle);
    device->loop->cycle();
    device->loop->cycle();
    EXPECT_EQ(cycles, 2);
    EXPECT_FALSE(withArguments);
    checkErrorInfo(loop->stopLoop());
    EXPECT_FALSE(device->loop->cycle);
    EXPECT_EQ(loop->startLoop(nullptr, nullptr), Errors::InvalidParameter);
    takeText();

    // A loop that nobody has stopped ends with the module.
    checkErrorInfo(loop->startLoop(proc.get(), nullptr));
    forgetProviders();
    module.release();
    EXPECT_FALSE(device->loop->cycle);
}

TEST_F(ModuleTest, LoopCallsWithoutALoopDevice) {
    add({});
    const auto provider = BasePtr(module.get()).asPtr<ILoopProvider>();
    EXPECT_EQ(provider->initializeLoop(), Errors::Success);
    const auto proc = makeProc([](const BasePtr&) -> ErrCode { return 0; });
    EXPECT_EQ(provider->startLoop(proc.get(), nullptr), Errors::InvalidState);
    takeText();
    EXPECT_EQ(provider->stopLoop(), Errors::Success);
    long interval = 7;
    checkErrorInfo(provider->getInterval(&interval));
    EXPECT_EQ(interval, 0);
}

TEST_F(ModuleTest, OperationModeComesFromTheData) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    configure();
    for (const auto& [value, expected] : {std::pair(0, 1), {1, 1}, {2, 2}, {3, 1}, {258, 1}}) {
        data.setPropertyValue("OperationMode", value);
        checkErrorInfo(module->initialize());
        EXPECT_EQ(impl->daqController.operationMode, expected) << value;
        EXPECT_EQ(device->ai->operationMode, expected) << value;
    }
}

// "BeforeStart" of the user and the start that follows prepare once.
TEST_F(ModuleTest, StartDoesNotRepeatBeforeStart) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    configure();
    checkErrorInfo(module->initialize());
    for (const auto& [own, hostChannel] : impl->daqStructure.getChannelsMap()) {
        checkErrorInfo(hostChannel->initializeAcquisition());
    }
    checkErrorInfo(dataModule.getPropertyValue("BeforeStart").asPtr<IProcObject>()->dispatch(nullptr));
    const auto buffer = device->ai->channels[0]->buffer;
    checkErrorInfo(module->start());
    EXPECT_EQ(device->ai->channels[0]->buffer, buffer);
    checkErrorInfo(module->stop());
}

TEST_F(ModuleTest, StagesGoOnAfterAnException) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({"Async in", "Async out"});
    int acquired = 0;
    device->ai->onAcquire = [&] {
        ++acquired;
        throw std::runtime_error("bus off");
    };
    device->ai->onSend = [] { throw std::runtime_error("no line"); };
    EXPECT_EQ(module->processData(), Errors::Success);
    EXPECT_EQ(acquired, 1);
    EXPECT_EQ(device->ai->sendCount, 1);
    EXPECT_EQ(log.take(error),
              (Texts{"Exception in DAQ::acquireData: bus off", "Exception in DAQ::sendData: no line"}));

    struct Silent : std::exception {
        const char* what() const noexcept override { return nullptr; }
    };
    device->ai->onAcquire = [] { throw Silent(); };
    device->ai->onSend = nullptr;
    EXPECT_EQ(module->processData(), Errors::Success);
    EXPECT_EQ(log.take(error), Texts{"Exception in DAQ::acquireData: (null)"});

    // What is no std::exception ends the cycle as a failure.
    device->ai->onAcquire = [] { throw 5; };
    EXPECT_EQ(module->processData(), Errors::GeneralError);
    EXPECT_EQ(device->ai->sendCount, 2);
    checkErrorInfo(module->stop());
}

TEST_F(ModuleTest, FailingTransfersAreLogged) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({"Async in", "Async out"});
    for (auto& [own, hostChannel] : impl->daqStructure.getChannelsMap()) {
        if (own->sampleType == SampleType::Async) {
            hostChannel = channel("Raw 1");  // takes no asynchronous samples
        }
    }
    EXPECT_EQ(module->processData(), Errors::Success);
    const std::string reason = "Invalid cast. The object does not implement this interface.";
    EXPECT_EQ(log.take(error),
              (Texts{"Exception while transfering data from DAQ async channels to RT: " + reason,
                     "Exception while transfering data from RT async channels to DAQ: " + reason}));
    EXPECT_EQ(device->ai->sendCount, 1);
    checkErrorInfo(module->stop());
}

// The message names the function that logs and its line.
TEST_F(ModuleTest, MessagesNameTheirPlace) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({});
    std::string line;
    struct RawSink : ILogSink {
        explicit RawSink(std::string& target) : text(target) { addLogSink(this, 0); }
        ~RawSink() override { removeLogSink(this); }
        void write(const LogRecord& record) override { text = record.message; }
        std::string& text;
    } sink(line);
    device->ai->onSend = [] { throw std::runtime_error("no line"); };
    checkErrorInfo(module->processData());
    ASSERT_FALSE(log.entries.empty());
    const auto& entry = log.entries.back();
    EXPECT_EQ(entry.function.find('('), std::string::npos);
    EXPECT_EQ(entry.function.find(' '), std::string::npos);
    EXPECT_EQ(line.find("[" + entry.function + ":"), 0u);
    const std::string end = "] Exception in DAQ::sendData: no line";
    EXPECT_EQ(line.substr(line.size() - end.size()), end);
    checkErrorInfo(module->stop());
}

TEST_F(ModuleTest, AsynchronousSamplesReachTheHost) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({"Async in"});
    const auto host = async("Async in");
    int next = 1;
    device->async->onAcquire = [&] {
        for (int i = 0; i < 3; ++i, ++next) {
            device->async->input->addSample(next * 100, next * 0.5);
        }
    };
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 3);
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 6);
    for (size_t i = 0; i < 6; ++i) {
        long timestamp = 0;
        void* sample = nullptr;
        checkErrorInfo(host->getTimestampAtPos(i, &timestamp));
        checkErrorInfo(host->getSampleAddressAtPos(i, &sample));
        EXPECT_EQ(timestamp, static_cast<long>(i + 1) * 500000000);
        EXPECT_EQ(*static_cast<int*>(sample), static_cast<int>(i + 1) * 100);
    }
    // Nothing new, nothing passed on.
    device->async->onAcquire = nullptr;
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 6);
    EXPECT_TRUE(log.take(error).empty());

    // Over the end of both rings.
    device->async->onAcquire = [&] {
        for (int i = 0; i < 14; ++i, ++next) {
            device->async->input->addSample(next * 100, next * 0.5);
        }
    };
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 20);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-1), 2000.0);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-14), 700.0);
    checkErrorInfo(module->stop());

    // The next run counts from 0 on both sides.
    next = 1;
    device->async->onAcquire = [&] { device->async->input->addSample(5, 0.25); };
    run({"Async in"});
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 1);
    checkErrorInfo(module->stop());
}

// Samples that the device's ring has already lost are gone: the rest arrives once, in order.
TEST_F(ModuleTest, LostAsynchronousSamplesAreNotRepeated) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({"Async in"});
    const auto host = async("Async in");
    auto& input = *device->async->input;
    int next = 1;
    // 40 samples in a ring of 16, as after cycles whose stage was broken off.
    device->async->onAcquire = [&] {
        for (int i = 0; i < 40; ++i, ++next) {
            input.samplesThisCycle = 0;
            input.addSample(next, next * 1.0);
        }
    };
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 16);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-1), 40.0);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-16), 25.0);
    device->async->onAcquire = nullptr;
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 16);
    device->async->onAcquire = [&] { input.addSample(next, next * 1.0); };
    checkErrorInfo(module->processData());
    EXPECT_EQ(heldBy(host), 17);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-1), 41.0);
    EXPECT_TRUE(log.take(error).empty());
    checkErrorInfo(module->stop());
}

TEST_F(ModuleTest, InputsIgnoreSamplesOfTheHost) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({"Async in"});
    const int sample = 5;
    checkErrorInfo(async("Async in")->addSample(1, &sample));
    checkErrorInfo(module->processData());
    EXPECT_EQ(device->async->input->samplesAcquired.get(), 0u);
    EXPECT_TRUE(log.take(error).empty());
    checkErrorInfo(module->stop());
}

TEST_F(ModuleTest, AsynchronousSamplesReachTheDevice) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({"Async out"});
    const auto host = async("Async out");
    auto& output = *device->async->output;
    int value = 1;
    const auto addToHost = [&](int count) {
        for (int i = 0; i < count; ++i, ++value) {
            checkErrorInfo(host->addSample(value * 250000000L, &value));
        }
    };
    for (const int count : {5, 0, 9, 6}) {
        addToHost(count);
        checkErrorInfo(module->processData());
        EXPECT_EQ(output.samplesAcquired.get(), static_cast<uint64_t>(value - 1));
        EXPECT_EQ(output.getCurrentSample(), value - 1.0);
        EXPECT_EQ(output.getCurrentTime(), (value - 1) * 0.25);
    }
    EXPECT_EQ(output.getSampleAtRelativePos(-6), value - 6.0);
    EXPECT_EQ(output.getTimeAtRelativePos(-6), (value - 6) * 0.25);
    EXPECT_TRUE(log.take(error).empty());

    // More than the device's ring takes in one cycle: the rest follows in the next one.
    addToHost(16);
    const auto before = output.samplesAcquired.get();
    checkErrorInfo(module->processData());
    EXPECT_EQ(output.samplesAcquired.get(), before + 15);
    EXPECT_EQ(log.take(error), Texts{"Exception while transfering data from RT async channels to DAQ: Data lost"});
    checkErrorInfo(module->processData());
    EXPECT_EQ(output.samplesAcquired.get(), before + 16);
    EXPECT_EQ(output.getCurrentSample(), value - 1.0);
    checkErrorInfo(module->stop());
}

// An output that the host doesn't use has no memory on the device's side, whatever the host's side gets.
TEST_F(ModuleTest, UnusedOutputsAreLeftAlone) {
    auto device = std::make_shared<TestDevice>();
    add({device});
    run({"Async in"});
    ASSERT_FALSE(device->async->output->active);
    const auto hostChannel = channel("Async out");
    hostChannel.setUsed(true);
    checkErrorInfo(hostChannel->initializeAcquisition());
    const int sample = 5;
    checkErrorInfo(async("Async out")->addSample(1, &sample));
    checkErrorInfo(module->processData());
    EXPECT_EQ(device->async->output->samplesAcquired.get(), 0u);
    EXPECT_TRUE(log.take(error).empty());
    checkErrorInfo(module->stop());
}

// The module is gone with its last reference, also when the host's tree still stands and the acquisition ran.
TEST_F(ModuleTest, EndsWithoutStop) {
    TestDevice::destroyed = 0;
    add({std::make_shared<TestDevice>()});
    run({"Raw 1", "Async in"});
    checkErrorInfo(module->processData());
    devicesToFind().clear();
    forgetProviders();
    module.release();
    EXPECT_EQ(TestDevice::destroyed, 1);
    EXPECT_TRUE(channel("Raw 1").hasProperty("CheckRate"));
}

}  // namespace
