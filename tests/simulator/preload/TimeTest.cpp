#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace std::chrono_literals;

namespace {

// What the machine's processors know of time, whatever a program is served.
double machineSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double seconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

class ServedTime : public PreloadTest {
protected:
    static constexpr double factor = 100.0;
    void SetUp() override { serve(quickScenario()); }
    void TearDown() override {
        PreloadTest::TearDown();
        kestrixsim::reset(quickScenario());
    }
    static void serve(kestrixsim::Scenario scenario) {
        scenario.timeFactor = factor;
        scenario.realtimeAtStart = 1795000000.0;
        kestrixsim::reset(std::move(scenario));
    }
};

// Each waits for 5 s: a machine's 50 ms, or the test would take a minute. What a program measures is the 5 s.
TEST_F(ServedTime, WaitsTakeAsLongAsTheClocksSay) {
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const Descriptor silent(ends[0]);
    const Descriptor other(ends[1]);
    const Descriptor timing(::open("/dev/tolvn_timing", O_RDONLY));
    const auto condition = [](auto wait) {
        std::mutex mutex;
        std::condition_variable changed;
        std::unique_lock lock(mutex);
        wait(changed, lock);
    };
    const auto later = [](clockid_t clock) {
        timespec end{};
        clock_gettime(clock, &end);
        end.tv_sec += 5;
        return end;
    };
    pollfd ordinary{ends[0], POLLIN, 0};
    pollfd served[2] = {{ends[0], POLLIN, 0}, {timing, POLLPRI, 0}};
    const std::pair<const char*, std::function<void()>> waits[] = {
        {"sleep", [] { EXPECT_EQ(0u, sleep(5)); }},
        {"usleep", [] { usleep(5'000'000); }},
        {"sleep_for", [] { std::this_thread::sleep_for(5s); }},
        {"sleep_until", [] { std::this_thread::sleep_until(std::chrono::system_clock::now() + 5s); }},
        {"clock_nanosleep to an end",
         [&] {
             const timespec end = later(CLOCK_MONOTONIC);
             EXPECT_EQ(0, clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr));
         }},
        {"condition variable", [&] { condition([](auto& c, auto& lock) { c.wait_for(lock, 5s); }); }},
#if !defined(__SANITIZE_THREAD__)
        // The thread sanitizer's run time goes past every other definition of pthread_cond_timedwait.
        {"condition variable of real time",
         [&] { condition([](auto& c, auto& l) { c.wait_until(l, std::chrono::system_clock::now() + 5s); }); }},
        {"monotonic condition",
         [&] {
             pthread_condattr_t attributes;
             pthread_condattr_init(&attributes);
             pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
             pthread_cond_t changed;
             pthread_cond_init(&changed, &attributes);
             pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
             const timespec end = later(CLOCK_MONOTONIC);
             pthread_mutex_lock(&mutex);
             EXPECT_EQ(ETIMEDOUT, pthread_cond_timedwait(&changed, &mutex, &end));
             pthread_mutex_unlock(&mutex);
             pthread_cond_destroy(&changed);
         }},
#endif
        {"poll", [&] { EXPECT_EQ(0, ::poll(&ordinary, 1, 5000)); }},
        {"poll of the instrument", [&] { EXPECT_EQ(0, ::poll(served, 2, 5000)); }},
        {"select",
         [&] {
             fd_set set;
             FD_ZERO(&set);
             FD_SET(ends[0], &set);
             timeval wait{5, 0};
             EXPECT_EQ(0, ::select(ends[0] + 1, &set, nullptr, nullptr, &wait));
         }},
    };
    for (const auto& [name, wait] : waits) {
        const double steady = seconds(CLOCK_MONOTONIC);
        const double real = seconds(CLOCK_REALTIME);
        wait();
        // Late by what the machine needs to wake up, a hundred times as long to a program.
        EXPECT_GE(seconds(CLOCK_MONOTONIC) - steady, 4.99) << name;
        EXPECT_LT(seconds(CLOCK_MONOTONIC) - steady, 60.0) << name;
        EXPECT_NEAR(seconds(CLOCK_MONOTONIC) - steady, seconds(CLOCK_REALTIME) - real, 1.0) << name;
    }
}

TEST_F(ServedTime, AllClocksRunAlikeAndStepsAreOfRealTimeOnly) {
    const double steady = seconds(CLOCK_MONOTONIC);
    const double cpu = machineSeconds();
    while (machineSeconds() - cpu < 0.05) {
    }
    const double passed = seconds(CLOCK_MONOTONIC) - steady;
    EXPECT_GE(passed, 5.0);
    EXPECT_NEAR(1795000000.0 + kestrixsim::instrument().seconds(), seconds(CLOCK_REALTIME), 2.0);
    EXPECT_NEAR(seconds(CLOCK_REALTIME), static_cast<double>(time(nullptr)), 2.0);
    timeval day{};
    gettimeofday(&day, nullptr);
    EXPECT_NEAR(seconds(CLOCK_REALTIME), static_cast<double>(day.tv_sec), 3.0);
    const double before = seconds(CLOCK_REALTIME) - seconds(CLOCK_MONOTONIC);
    kestrixsim::instrument().stepRealtime(-50e6);
    EXPECT_NEAR(before - 50.0, seconds(CLOCK_REALTIME) - seconds(CLOCK_MONOTONIC), 1.0);
}

// A monotonic clock never goes back, and the machine's real time is back where nothing else was asked for.
TEST_F(ServedTime, AnInstrumentThatServesNoClocksTakesOver) {
    std::this_thread::sleep_for(10s);
    const double steady = seconds(CLOCK_MONOTONIC);
    kestrixsim::reset(quickScenario());
    EXPECT_GE(seconds(CLOCK_MONOTONIC), steady);
    EXPECT_LT(seconds(CLOCK_MONOTONIC), steady + 60.0);
    EXPECT_LT(seconds(CLOCK_REALTIME), 1795000000.0 + 3e8);
    const double real = seconds(CLOCK_REALTIME);
    kestrixsim::instrument().stepRealtime(2e6);
    EXPECT_NEAR(real + 2.0, seconds(CLOCK_REALTIME), 0.5);
}

TEST_F(PreloadTest, ABlockingReadWaitsForTheNextPulse) {
    const Descriptor memory(::open("/dev/mem", O_RDWR | O_SYNC));
    const Descriptor timing(::open("/dev/tolvn_timing", O_RDWR));
    accessWord(memory, 0xA3000024, [](volatile uint32_t& word) { word = 3; });
    accessWord(memory, 0xA3000000, [](volatile uint32_t& word) { word = 0x100; });
    uint32_t first[3]{};
    uint32_t second[3]{};
    ASSERT_EQ(12, ::read(timing, first, sizeof first));
    pollfd wait{timing, POLLIN, 0};
    ASSERT_EQ(0, ::poll(&wait, 1, 100));
    const double start = seconds(CLOCK_MONOTONIC);
    ASSERT_EQ(12, ::read(timing, second, sizeof second));
    EXPECT_NEAR(0.9, seconds(CLOCK_MONOTONIC) - start, 0.4);
    EXPECT_EQ(first[0] + 1, second[0]);
    EXPECT_EQ(1u << 31, second[2]) << "in its own timing there is no reference";
}

}  // namespace
