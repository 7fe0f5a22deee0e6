#include "libraries/utils/TimerThread.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "libraries/utils/FaultReport.h"

// Times are only tested from below: a loaded machine makes any call late, none early.
namespace {

using namespace Harvane::Utils::Threading;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int farOffMs = 20 * 1000;

// Callbacks as they come, for a test to await.
class Calls {
public:
    struct Span {
        Clock::time_point begin;
        Clock::time_point end;
    };

    explicit Calls(std::chrono::milliseconds busy = 0ms) : busy_(busy) {}

    std::function<void()> callback() {
        return [this] {
            const auto begin = Clock::now();
            std::this_thread::sleep_for(busy_);
            const std::lock_guard lock(mutex_);
            spans_.push_back({begin, Clock::now()});
            changed_.notify_all();
        };
    }

    std::vector<Span> await(size_t count) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, 30s, [&] { return spans_.size() >= count; })) << "too few callbacks";
        return spans_;
    }

private:
    std::chrono::milliseconds busy_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Span> spans_;
};

TEST(TimerThread, firstAndLaterCallsComeOnePeriodApart) {
    const std::tuple<int, std::chrono::milliseconds, bool> cases[] = {
        // -1 stands for the interval of 20 ms; no period is below 1 ms.
        {-1, 20ms, false}, {40, 40ms, false}, {0, 1ms, false}, {-7, 1ms, false},
        {-1, 20ms, true},  {40, 40ms, true},  {0, 1ms, true},  {-7, 1ms, true},
    };
    for (const auto& [delayMs, period, setLater] : cases) {
        SCOPED_TRACE(std::to_string(delayMs) + (setLater ? " set later" : ""));
        Calls calls;
        TimerThread timer(20, calls.callback(), setLater ? farOffMs : delayMs, TimerMode::FromCallbackEnd);
        if (setLater) {
            timer.setDelayMs(delayMs);
        }
        EXPECT_EQ(timer.getIntervalMs(), 20);
        EXPECT_EQ(timer.getDelayMs(), delayMs == -1 ? 20 : delayMs);
        const auto started = Clock::now();
        timer.start();
        const auto spans = calls.await(3);
        EXPECT_GE(spans[0].begin - started, period);
        EXPECT_GE(spans[1].begin - spans[0].end, period);
        EXPECT_GE(spans[2].begin - spans[1].end, period);
    }
}

TEST(TimerThread, fixedRateCountsFromTheDeadlineAndCatchesUp) {
    constexpr auto period = 60ms;
    Calls calls(90ms);
    TimerThread timer(static_cast<int>(period.count()), calls.callback(), -1, TimerMode::FixedRate);
    const auto started = Clock::now();
    timer.start();
    const auto spans = calls.await(4);
    timer.stop();
    size_t atOnce = 0;
    for (size_t n = 0; n < spans.size(); ++n) {
        EXPECT_GE(spans[n].begin - started, period * (n + 1));
        if (n > 0 && spans[n].begin - spans[n - 1].end < period) {
            ++atOnce;
        }
    }
    EXPECT_GT(atOnce, 0u) << "each call waited a whole period after the end of the one before";
}

TEST(TimerThread, changedDelayCountsFromTheNextStart) {
    Calls calls;
    TimerThread timer(5, calls.callback(), -1, TimerMode::FromCallbackEnd);
    timer.start();
    calls.await(1);
    timer.setDelayMs(farOffMs);
    calls.await(3);
    timer.stop();
    timer.setDelayMs(30);
    const auto started = Clock::now();
    const size_t before = calls.await(0).size();
    timer.start();
    EXPECT_GE(calls.await(before + 1)[before].begin - started, 30ms);
    EXPECT_EQ(timer.getIntervalMs(), 5);
}

TEST(TimerThread, countStartsAtZeroWithEveryStart) {
    Calls calls;
    TimerThread timer(2, calls.callback(), -1, TimerMode::FromCallbackEnd);
    timer.start();
    calls.await(3);
    EXPECT_THROW(timer.start(), std::runtime_error);
    EXPECT_GE(timer.getNoOfCallbacks(), 3u);
    timer.stop();
    timer.setDelayMs(farOffMs);
    timer.start();
    EXPECT_EQ(timer.getNoOfCallbacks(), 0u);
}

// A notification that is lost between the test of the flag and the wait ends in a callback at the deadline.
TEST(TimerThread, stopWakesAWaitingTimerWhateverItWasDoing) {
    TimerThread timer(
        farOffMs, [] {}, -1, TimerMode::FromCallbackEnd);
    for (int n = 0; n < 300; ++n) {
        timer.start();
        for (int spin = 0; spin < n; ++spin) {
            std::this_thread::yield();
        }
        timer.stop();
        ASSERT_EQ(timer.getNoOfCallbacks(), 0u);
    }
}

// A timer that isn't woken ends at its deadline, and calls back once more.
TEST(TimerThread, destructionWakesAWaitingTimer) {
    int calls = 0;
    {
        TimerThread timer(
            farOffMs, [&] { ++calls; }, -1, TimerMode::FromCallbackEnd);
        timer.start();
        std::this_thread::sleep_for(20ms);  // into its wait
    }
    EXPECT_EQ(calls, 0);
}

TEST(TimerThread, stopWaitsForTheCallbackInProgress) {
    std::promise<void> entered;
    std::atomic<bool> left{false};
    const auto callback = [&] {
        entered.set_value();
        std::this_thread::sleep_for(50ms);
        left = true;
    };
    TimerThread timer(1, callback, -1, TimerMode::FromCallbackEnd);
    timer.start();
    entered.get_future().wait();
    timer.stop();
    EXPECT_TRUE(left);
    EXPECT_FALSE(timer.getStarted());
}

TEST(TimerThread, failingCallbackIsToldByItsChangesAndTheTimerGoesOn) {
    using Texts = std::vector<std::string>;
    struct Collector : ThreadExceptionAdapter {
        void handleException(const std::string& text) override { texts.push_back(text); }
        Texts texts;
    };
    Collector collector;
    Texts reports;
    ThreadEx::setReporter([&](const char* thread, const std::string& text) {
        EXPECT_STREQ(thread, "phaseTimer");
        reports.push_back(text);
        throw std::runtime_error("the log is full");
    });
    const Texts outcomes{"", "stuck", "stuck", "stuck", "gone", "gone", "", "", "gone", "", "?", "?"};
    Calls calls;
    size_t run = 0;
    TimerThread timer(
        1,
        [&, next = calls.callback()] {
            const std::string outcome = outcomes[std::min(run++, outcomes.size() - 1)];
            next();
            if (outcome == "?") {
                throw 1;
            }
            if (!outcome.empty()) {
                throw std::runtime_error(outcome);
            }
        },
        -1, TimerMode::FromCallbackEnd, "phaseTimer");
    timer.setExceptionAdapter(&collector);
    timer.start();
    calls.await(outcomes.size() + 2);
    EXPECT_FALSE(timer.getFinished());
    timer.stop();
    ThreadEx::setReporter({});
    const Texts expected{
        "callback failed: stuck", "callback failed: gone (4 failures so far)", "callback works again after 5 failures",
        "callback failed: gone",  "callback works again after 1 failure",      "callback failed: Unknown exception."};
    EXPECT_EQ(reports, expected);
    EXPECT_EQ(collector.texts, expected);
}

// A fault that comes and goes, or whose text never stays the same, must not fill the log in a recording of days.
TEST(FaultReport, changesAreToldTenTimesInTenMinutesAndThenHowThingsStand) {
    // failure: of try n, one every 10 ms; last: when from try 50000 on nothing changes.
    const std::tuple<const char*, std::function<std::string(int)>, const char*> cases[] = {
        {"comes and goes", [](int n) { return std::string(n % 3 == 0   ? "a"
                                                          : n % 3 == 1 ? "b"
                                                                       : ""); },
         "it works again after 33328 failures"},
        {"never the same", [](int n) { return std::to_string(n); }, "it failed: 50000 (60001 failures so far)"},
    };
    for (const auto& [what, failure, last] : cases) {
        SCOPED_TRACE(what);
        Harvane::Utils::FaultReport faults("it");
        std::vector<std::string> texts;
        const Harvane::Utils::FaultReport::Clock::time_point start{1h};
        for (int n = 0; n < 200000; ++n) {
            const auto text = faults.after(failure(std::min(n, 50000)), start + n * 10ms);
            if (!text.empty()) {
                texts.push_back(text);
            }
        }
        EXPECT_EQ(texts.size(), 11u);
        EXPECT_EQ(texts.back(), last);
    }
}

}  // namespace
