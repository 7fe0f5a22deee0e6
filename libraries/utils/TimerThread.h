#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>

#include "libraries/utils/FaultReport.h"
#include "libraries/utils/ThreadEx.h"

namespace Harvane::Utils::Threading {

enum class TimerMode : int {
    FromCallbackEnd = 0,  // the next period counts from the end of the callback
    FixedRate = 1,        // the next period counts from the previous deadline, whatever the callback takes
};

// Calls a function periodically on a thread of its own, paced by the monotonic clock.
//
// The period is the delay as it stood at start, in ms; setDelayMs takes effect at the next start. A delay of -1 stands
// for the interval, which has no other use. A period below 1 ms is run as one of 1 ms. A callback that fails doesn't
// end the timer: adapter and reporter are told as FaultReport has it, and the next period comes. stop wakes a waiting
// timer at once and otherwise waits for the callback in progress; a callback must not stop its own timer. A derived
// class that overrides executeTimerCallback stops in its own destructor.
class TimerThread : public ThreadEx {
public:
    TimerThread(int intervalMs, std::function<void()> callback, int delayMs, TimerMode mode,
                std::string name = "timer");
    ~TimerThread() override;

    // Throws std::runtime_error "Thread is already started.".
    void start() override;
    void stop() override;
    void execute() override;
    // Calls the callback, if there is one.
    virtual void executeTimerCallback();

    int getIntervalMs() const;
    void setIntervalMs(int intervalMs);
    int getDelayMs() const;
    void setDelayMs(int delayMs);  // -1: the interval as it is now

    // Mode and callback are set before start: the running thread reads them without a lock.
    TimerMode getTimerMode() const;
    void setTimerMode(TimerMode mode);
    const std::function<void()>& getCallback() const;
    void setCallback(const std::function<void()>& callback);

    // Periods that have passed since start.
    uint64_t getNoOfCallbacks() const;

private:
    void callAndReport(FaultReport& faults) noexcept;

    pthread_mutex_t mutex_;
    pthread_cond_t condition_;
    std::atomic<uint64_t> noOfCallbacks_{0};
    std::atomic<int> intervalMs_;
    std::atomic<int> delayMs_;
    TimerMode timerMode_;
    std::function<void()> callback_;
};

}  // namespace Harvane::Utils::Threading
