#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include <zorn/scheduler/scheduler.h>
#include <zorn/types/callable.h>

#include "tests/host/runtime/RecordingSink.h"

using namespace Harvane::RT::Core;
using namespace std::chrono_literals;

namespace {

class CycleModule final : public ObjectImpl<IModule> {
public:
    explicit CycleModule(std::function<ErrCode()> body) : body_(std::move(body)) {}
    ErrCode add(IModuleAddParams*) override { return Errors::NotImplemented; }
    ErrCode remove() override { return Errors::NotImplemented; }
    ErrCode configure(IModuleConfig*) override { return Errors::NotImplemented; }
    ErrCode initialize() override { return Errors::NotImplemented; }
    ErrCode start() override { return Errors::NotImplemented; }
    ErrCode postStart() override { return Errors::NotImplemented; }
    ErrCode preStop() override { return Errors::NotImplemented; }
    ErrCode stop() override { return Errors::NotImplemented; }
    ErrCode finalize() override { return Errors::NotImplemented; }
    ErrCode processData() override { return body_(); }
    ErrCode getTaskList(IList**) override { return Errors::NotImplemented; }
    ErrCode getInputs(IInputGroups**) override { return Errors::NotImplemented; }
    ErrCode getConfigurationMode(ConfigurationMode*) override { return Errors::NotImplemented; }

private:
    std::function<ErrCode()> body_;
};

ObjectPtr<IModule> cycleModule(std::function<ErrCode()> body) {
    return ObjectPtr<IModule>::take(new CycleModule(std::move(body)));
}

AcquisitionSyncPtr newSync() {
    IAcquisitionSync* raw = nullptr;
    checkErrorInfo(createAcquisitionSync(&raw));
    return AcquisitionSyncPtr(ObjectPtr<IAcquisitionSync>::take(raw));
}

template <class Condition>
bool eventually(Condition&& condition) {
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

}  // namespace

TEST(Scheduler, CallsEveryModuleOnceACycleUnderTheLock) {
    const auto sync = newSync();
    Scheduler scheduler(sync, 1);
    std::atomic<uint64_t> first{0};
    std::atomic<uint64_t> second{0};
    std::atomic<bool> unlocked{false};
    scheduler.addModule(cycleModule([&]() -> ErrCode {
        if (sync->lock() != Errors::InvalidState)  // what the lock tells its holder
            unlocked = true;
        zornClearErrorInfo();
        ++first;
        return Errors::Success;
    }));
    scheduler.addModule(cycleModule([&]() -> ErrCode {
        ++second;
        return 1;  // a success, too
    }));
    EXPECT_FALSE(scheduler.isRunning());
    scheduler.start();
    EXPECT_TRUE(scheduler.isRunning());
    ASSERT_TRUE(eventually([&] { return scheduler.statistics().cycles >= 5; }));
    scheduler.stop();
    EXPECT_FALSE(scheduler.isRunning());

    const auto statistics = scheduler.statistics();
    EXPECT_EQ(first, statistics.cycles);
    EXPECT_EQ(second, statistics.cycles);
    EXPECT_EQ(statistics.failures, 0u);
    EXPECT_GT(statistics.longestGapS, 0.0);
    EXPECT_FALSE(unlocked);
    EXPECT_EQ(scheduler.sequence(), 2 * statistics.cycles);
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(first, statistics.cycles) << "nothing runs after stop";

    // A new run counts anew; the sequence goes on, since readers compare it.
    const uint64_t sequence = scheduler.sequence();
    scheduler.start();
    ASSERT_TRUE(eventually([&] { return scheduler.statistics().cycles >= 1; }));
    scheduler.stop();
    EXPECT_EQ(scheduler.sequence(), sequence + 2 * scheduler.statistics().cycles);
}

TEST(Scheduler, WaitsForTheLock) {
    const auto sync = newSync();
    Scheduler scheduler(sync, 1);
    std::atomic<int> calls{0};
    scheduler.addModule(cycleModule([&]() -> ErrCode { return ++calls, Errors::Success; }));
    sync.lock();
    scheduler.start();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(scheduler.sequence() % 2, 0u) << "whoever holds the lock sees no cycle";
    EXPECT_TRUE(scheduler.waitForCycleEnd(0));
    sync.unlock();
    EXPECT_TRUE(eventually([&] { return calls > 0; }));
    scheduler.stop();
}

TEST(Scheduler, SkipsWholePeriodsWhenLate) {
    constexpr long PeriodMs = 20;
    Scheduler scheduler(newSync(), PeriodMs);
    std::atomic<int> calls{0};
    scheduler.addModule(cycleModule([&]() -> ErrCode {
        if (calls++ == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(PeriodMs * 7 / 2));
        return Errors::Success;
    }));
    scheduler.start();
    ASSERT_TRUE(eventually([&] { return calls >= 3; }));
    scheduler.stop();
    const auto statistics = scheduler.statistics();
    EXPECT_GE(statistics.overruns, 3u);
    EXPECT_GE(statistics.longestCycleS, 0.07);
    EXPECT_GE(statistics.longestGapS, 0.079) << "on the grid of the start, not in a burst";
}

TEST(Scheduler, FailingModuleIsLoggedSparinglyAndTheCycleGoesOn) {
    RecordingSink log("Scheduler");
    Scheduler scheduler(newSync(), 1);
    std::atomic<uint64_t> others{0};
    std::atomic<bool> staleText{false};
    scheduler.addModule(cycleModule([&]() -> ErrCode { return makeError(Errors::InvalidState, "the cable is off"); }));
    scheduler.addModule(cycleModule([&]() -> ErrCode {
        staleText = staleText || !takeErrorMessage().empty();
        return ++others, Errors::Success;
    }));
    const auto begin = std::chrono::steady_clock::now();
    scheduler.start();
    ASSERT_TRUE(eventually([&] { return scheduler.statistics().failures >= 20; }));
    scheduler.stop();
    const auto duration = std::chrono::steady_clock::now() - begin;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration).count();

    const auto statistics = scheduler.statistics();
    EXPECT_EQ(statistics.failures, statistics.cycles);
    EXPECT_EQ(others, statistics.cycles);
    EXPECT_FALSE(staleText) << "a failure's text is taken where it belongs";
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 2u);  // the first at once, the rest with a count
    EXPECT_LE(lines.size(), 2u + static_cast<size_t>(seconds));
    EXPECT_EQ(lines[0].level, 4);
    EXPECT_EQ(lines[0].message, "processData of module 0 failed: 0x80000029 the cable is off");
    uint64_t counted = 0;
    for (size_t i = 1; i < lines.size(); ++i) {
        const size_t at = lines[i].message.find('(');
        counted += at == std::string::npos ? 1 : std::stoull(lines[i].message.substr(at + 1));
    }
    EXPECT_EQ(counted + 1, statistics.failures);
}

TEST(Scheduler, StopWaitsForTheRunningCycle) {
    Scheduler scheduler(newSync(), 1);
    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
    std::atomic<bool> left{false};
    scheduler.addModule(cycleModule([&]() -> ErrCode {
        inside = true;
        while (!release)
            std::this_thread::sleep_for(1ms);
        left = true;
        return Errors::Success;
    }));
    scheduler.start();
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    EXPECT_EQ(scheduler.sequence() % 2, 1u);
    EXPECT_FALSE(scheduler.waitForCycleEnd(5));
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        scheduler.stop();
        EXPECT_TRUE(left);
        stopped = true;
    });
    std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(stopped);
    release = true;
    EXPECT_TRUE(scheduler.waitForCycleEnd(10000));
    stopper.join();
    EXPECT_EQ(scheduler.statistics().cycles, 1u);
}

TEST(Scheduler, StopDoesNotWaitForALongPeriod) {
    Scheduler scheduler(newSync(), 3600000);
    scheduler.start();
    scheduler.stop();  // would last an hour
    EXPECT_EQ(scheduler.statistics().cycles, 0u);
}

TEST(Scheduler, LoopProviderDrivesTheCycle) {
    struct Loop final : ObjectImpl<ILoopProvider> {
        ErrCode initializeLoop() override { return calls += "initialize ", Errors::Success; }
        ErrCode startLoop(IProcObject* proc, IBaseObject*) override {
            calls += "start ";
            if (failStart)
                return makeError(Errors::InvalidState, "no loop today");
            cycle = proc;
            return Errors::Success;
        }
        ErrCode stopLoop() override { return calls += "stop ", Errors::Success; }
        ErrCode getInterval(long* milliseconds) const override { return *milliseconds = 1, Errors::Success; }
        std::string calls;
        bool failStart = false;
        ObjectPtr<IProcObject> cycle;
    };
    auto* loop = new Loop;
    const auto holder = ObjectPtr<ILoopProvider>::take(loop);
    Scheduler scheduler(newSync(), 1);
    scheduler.addModule(cycleModule([]() -> ErrCode { return Errors::Success; }));
    scheduler.setLoopProvider(holder);

    loop->failStart = true;
    EXPECT_THROW(scheduler.start(), InvalidStateException);
    EXPECT_FALSE(scheduler.isRunning());
    loop->failStart = false;
    loop->calls.clear();
    scheduler.start();
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(scheduler.statistics().cycles, 0u) << "no thread of the scheduler's own";
    checkErrorInfo(loop->cycle->dispatch(nullptr));
    checkErrorInfo(loop->cycle->dispatch(nullptr));
    EXPECT_EQ(scheduler.statistics().cycles, 2u);
    scheduler.stop();
    EXPECT_EQ(loop->calls, "initialize start stop ");
    checkErrorInfo(loop->cycle->dispatch(nullptr));
    EXPECT_EQ(scheduler.statistics().cycles, 2u) << "a late call runs nothing";

    scheduler.setLoopProvider({});
    scheduler.start();
    EXPECT_TRUE(eventually([&] { return scheduler.statistics().cycles > 0; }));
}

TEST(Scheduler, RefusesMisuse) {
    EXPECT_THROW(Scheduler({}, 10), InvalidParameterException);
    EXPECT_THROW(Scheduler(newSync(), 0), InvalidParameterException);
    Scheduler scheduler(newSync(), 5);
    const auto module = cycleModule([]() -> ErrCode { return Errors::Success; });
    scheduler.addModule(module);
    scheduler.stop();
    scheduler.start();
    EXPECT_THROW(scheduler.start(), InvalidStateException);
    EXPECT_THROW(scheduler.addModule(module), InvalidStateException);
    EXPECT_THROW(scheduler.removeModule(module), InvalidStateException);
    EXPECT_THROW(scheduler.setLoopProvider({}), InvalidStateException);
    scheduler.stop();
    scheduler.removeModule(module);
    scheduler.start();
    EXPECT_TRUE(eventually([&] { return scheduler.statistics().cycles > 1; }));
}
