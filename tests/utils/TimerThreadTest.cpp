#include "libraries/utils/TimerThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

// Times are only tested from below: a loaded machine makes any call late, none early.
namespace {

using namespace Harvane::Utils::Threading;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int oneHourMs = 3600 * 1000;

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

TEST(TimerThread, firstAndLaterCallsComeOneDelayApart) {
    // The interval only stands in for a delay of -1.
    for (const int delayMs : {-1, 40}) {
        SCOPED_TRACE(delayMs);
        const auto period = std::chrono::milliseconds(delayMs == -1 ? 20 : delayMs);
        Calls calls;
        TimerThread timer(20, calls.callback(), delayMs, TimerMode::FromCallbackEnd);
        EXPECT_EQ(timer.getIntervalMs(), 20);
        EXPECT_EQ(timer.getDelayMs(), period.count());
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
    timer.setDelayMs(oneHourMs);
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
    timer.setDelayMs(oneHourMs);
    timer.start();
    EXPECT_EQ(timer.getNoOfCallbacks(), 0u);
}

// A notification that is lost between the test of the flag and the wait would cost an hour here.
TEST(TimerThread, stopWakesAWaitingTimerWhateverItWasDoing) {
    TimerThread timer(
        oneHourMs, [] {}, -1, TimerMode::FromCallbackEnd);
    for (int n = 0; n < 300; ++n) {
        timer.start();
        for (int spin = 0; spin < n; ++spin) {
            std::this_thread::yield();
        }
        timer.stop();
        EXPECT_EQ(timer.getNoOfCallbacks(), 0u);
    }
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

TEST(TimerThread, exceptionOfACallbackIsReportedAndTheTimerGoesOn) {
    class Collector : public ThreadExceptionAdapter {
    public:
        void handleException(const std::string& text) override { texts.push_back(text); }
        std::vector<std::string> texts;
    };
    Collector collector;
    Calls calls;
    int runs = 0;
    TimerThread timer(
        1,
        [&, next = calls.callback()] {
            const int run = runs++;
            next();
            if (run < 2) {
                throw std::runtime_error("reading " + std::to_string(run));
            }
        },
        -1, TimerMode::FromCallbackEnd);
    timer.setExceptionAdapter(&collector);
    timer.start();
    calls.await(4);
    EXPECT_FALSE(timer.getFinished());
    timer.stop();
    EXPECT_EQ(collector.texts, (std::vector<std::string>{"reading 0", "reading 1"}));
}

}  // namespace
