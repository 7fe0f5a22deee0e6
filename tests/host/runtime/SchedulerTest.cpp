#include <atomic>
#include <functional>

#include <gtest/gtest.h>

#include <zorn/scheduler/scheduler.h>
#include <zorn/types/callable.h>

#include "tests/host/Made.h"
#include "tests/host/runtime/Eventually.h"
#include "tests/host/runtime/RecordingSink.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;
using namespace std::chrono_literals;

namespace {

// Only its cycle matters.
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

struct SchedulerTest : testing::Test {
    // A module that runs `body` in every cycle.
    ObjectPtr<IModule> add(std::function<ErrCode()> body) {
        auto module = ObjectPtr<IModule>::take(new CycleModule(std::move(body)));
        scheduler.addModule(module);
        return module;
    }
    bool ranCycles(uint64_t count) {
        return eventually([&] { return scheduler.statistics().cycles >= count; });
    }

    const AcquisitionSyncPtr sync = made<IAcquisitionSync>(createAcquisitionSync);
    std::atomic<uint64_t> calls{0};
    Scheduler scheduler{sync, 1};
};

}  // namespace

TEST_F(SchedulerTest, CallsEveryModuleOnceACycleUnderTheLock) {
    std::atomic<bool> unlocked{false};
    std::atomic<uint64_t> second{0};
    add([&]() -> ErrCode {
        if (sync->lock() != Errors::InvalidState) {  // what the lock tells its holder
            unlocked = true;
        }
        zornClearErrorInfo();
        ++calls;
        return Errors::Success;
    });
    add([&]() -> ErrCode {
        ++second;
        return 1;  // a success, too
    });
    scheduler.start();
    EXPECT_TRUE(scheduler.isRunning());
    ASSERT_TRUE(ranCycles(5));
    scheduler.stop();
    EXPECT_FALSE(scheduler.isRunning());

    const auto statistics = scheduler.statistics();
    EXPECT_EQ(second, statistics.cycles);
    EXPECT_EQ(statistics.failures, 0u);
    EXPECT_GT(statistics.longestGapS, 0.0);
    EXPECT_FALSE(unlocked);
    EXPECT_EQ(scheduler.sequence(), 2 * statistics.cycles);
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(calls, statistics.cycles) << "nothing runs after stop";

    // A new run counts anew; the sequence goes on, since readers compare it.
    scheduler.start();
    ASSERT_TRUE(ranCycles(1));
    scheduler.stop();
    EXPECT_EQ(scheduler.sequence(), 2 * (statistics.cycles + scheduler.statistics().cycles));
}

TEST_F(SchedulerTest, SkipsWholePeriodsWhenLate) {
    constexpr long PeriodMs = 20;
    Scheduler slow(sync, PeriodMs);
    slow.addModule(add([&]() -> ErrCode {
        if (calls++ == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(PeriodMs * 7 / 2));
        }
        return Errors::Success;
    }));
    const auto begin = std::chrono::steady_clock::now();
    slow.start();
    ASSERT_TRUE(eventually([&] { return calls >= 3; }));
    slow.stop();
    const auto periods = (std::chrono::steady_clock::now() - begin) / std::chrono::milliseconds(PeriodMs);
    const auto statistics = slow.statistics();
    EXPECT_GE(statistics.overruns, 3u);
    EXPECT_GE(statistics.longestCycleS, 0.07);
    EXPECT_GT(statistics.longestGapS, statistics.longestCycleS);
    EXPECT_LE(statistics.cycles + statistics.overruns, static_cast<uint64_t>(periods)) << "a burst to catch up";
}

TEST_F(SchedulerTest, FailureWithoutATextSpeaksByItsCode) {
    RecordingSink log("Scheduler");
    add([&]() -> ErrCode {
        if (calls++ == 0) {
            makeError(Errors::GeneralError, "what the first cycle got over");
            return Errors::Success;
        }
        return Errors::InvalidState;
    });
    scheduler.start();
    ASSERT_TRUE(eventually([&] { return scheduler.statistics().failures >= 1; }));
    scheduler.stop();
    ASSERT_FALSE(log.messages().empty());
    EXPECT_EQ(log.messages()[0], "processData of module 0 failed: 0x80000029 Invalid state");
}

TEST_F(SchedulerTest, FailingModuleIsLoggedSparinglyAndTheCycleGoesOn) {
    RecordingSink log("Scheduler");
    std::atomic<bool> staleText{false};
    add([&]() -> ErrCode { return makeError(Errors::InvalidState, "the cable is off"); });
    add([&]() -> ErrCode {
        staleText = staleText || !takeErrorMessage().empty();
        return ++calls, Errors::Success;
    });
    const auto begin = std::chrono::steady_clock::now();
    scheduler.start();
    ASSERT_TRUE(eventually([&] { return scheduler.statistics().failures >= 20; }));
    scheduler.stop();
    const auto seconds = (std::chrono::steady_clock::now() - begin) / 1s;

    const auto statistics = scheduler.statistics();
    EXPECT_EQ(statistics.failures, statistics.cycles);
    EXPECT_EQ(calls, statistics.cycles);
    EXPECT_FALSE(staleText) << "a failure's text is taken where it belongs";
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 2u);  // the first at once, the rest with a count
    EXPECT_LE(lines.size(), 2u + static_cast<size_t>(seconds));
    EXPECT_EQ(lines[0].level, 4);
    EXPECT_EQ(lines[0].message, "processData of module 0 failed: 0x80000029 the cable is off");
    uint64_t counted = lines.size();
    for (const auto& line : lines) {
        if (const size_t at = line.message.find('('); at != std::string::npos) {
            counted += std::stoull(line.message.substr(at + 1)) - 1;
        }
    }
    EXPECT_EQ(counted, statistics.failures);
}

TEST_F(SchedulerTest, StopWaitsForTheRunningCycle) {
    std::atomic<bool> release{false};
    std::atomic<bool> stopped{false};
    add([&]() -> ErrCode {
        ++calls;
        EXPECT_TRUE(eventually([&] { return release.load(); }));
        EXPECT_FALSE(stopped);
        return Errors::Success;
    });
    scheduler.start();
    ASSERT_TRUE(eventually([&] { return calls == 1; }));
    EXPECT_EQ(scheduler.sequence() % 2, 1u);
    EXPECT_FALSE(scheduler.waitForCycleEnd(5));
    std::thread stopper([&] {
        scheduler.stop();
        stopped = true;
    });
    std::this_thread::sleep_for(10ms);
    release = true;
    EXPECT_TRUE(scheduler.waitForCycleEnd(10000));
    stopper.join();
    EXPECT_EQ(scheduler.statistics().cycles, 1u);
}

TEST_F(SchedulerTest, StopDoesNotWaitForALongPeriod) {
    Scheduler slow(sync, 3600000);
    slow.start();
    EXPECT_TRUE(slow.waitForCycleEnd(0)) << "there is none";
    slow.stop();  // would last an hour
    EXPECT_EQ(slow.statistics().cycles, 0u);
}

TEST_F(SchedulerTest, LoopProviderDrivesTheCycle) {
    struct Loop final : ObjectImpl<ILoopProvider> {
        ErrCode initializeLoop() override { return calls += "initialize ", Errors::Success; }
        ErrCode startLoop(IProcObject* proc, IBaseObject*) override {
            calls += "start ";
            cycle = proc;
            return failStart ? makeError(Errors::InvalidState, "no loop today") : Errors::Success;
        }
        ErrCode stopLoop() override { return calls += "stop ", Errors::Success; }
        ErrCode getInterval(long* milliseconds) const override { return handOut(1L, milliseconds); }
        std::string calls;
        bool failStart = true;
        ObjectPtr<IProcObject> cycle;
    };
    auto* loop = new Loop;
    scheduler.setLoopProvider(ObjectPtr<ILoopProvider>::take(loop));
    EXPECT_EQ(failure([&] { scheduler.start(); }), "80000029 no loop today");
    EXPECT_FALSE(scheduler.isRunning());
    // The scheduler holds the loop: the analyzer doesn't follow its reference.
    loop->failStart = false;  // NOLINT(clang-analyzer-cplusplus.NewDelete)
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
    EXPECT_TRUE(ranCycles(1));
}

TEST_F(SchedulerTest, RefusesMisuse) {
    EXPECT_THROW(Scheduler({}, 10), InvalidParameterException);
    EXPECT_THROW(Scheduler(sync, 0), InvalidParameterException);
    const auto module = add([&]() -> ErrCode { return ++calls, Errors::Success; });
    scheduler.stop();
    scheduler.start();
    EXPECT_THROW(scheduler.start(), InvalidStateException);
    EXPECT_THROW(scheduler.addModule(module), InvalidStateException);
    EXPECT_THROW(scheduler.removeModule(module), InvalidStateException);
    EXPECT_THROW(scheduler.setLoopProvider({}), InvalidStateException);
    scheduler.stop();
    scheduler.removeModule(module);
    calls = 0;
    scheduler.start();
    EXPECT_TRUE(ranCycles(2));
    EXPECT_EQ(calls, 0u);
}
