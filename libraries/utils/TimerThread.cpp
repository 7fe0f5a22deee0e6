#include "libraries/utils/TimerThread.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace Harvane::Utils::Threading {

namespace {

class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    pthread_mutex_t& mutex_;
};

timespec monotonicNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

timespec plusMilliseconds(timespec base, int milliseconds) {
    constexpr long nanosecondsPerSecond = 1000000000;
    base.tv_sec += milliseconds / 1000;
    base.tv_nsec += (milliseconds % 1000) * 1000000L;
    if (base.tv_nsec >= nanosecondsPerSecond) {
        base.tv_nsec -= nanosecondsPerSecond;
        ++base.tv_sec;
    } else if (base.tv_nsec < 0) {
        base.tv_nsec += nanosecondsPerSecond;
        --base.tv_sec;
    }
    return base;
}

}  // namespace

TimerThread::TimerThread(int intervalMs, std::function<void()> callback, int delayMs, TimerMode mode, std::string name)
    : ThreadEx(std::move(name)),
      intervalMs_(intervalMs),
      delayMs_(delayMs == -1 ? intervalMs : delayMs),
      timerMode_(mode),
      callback_(std::move(callback)) {
    pthread_mutex_init(&mutex_, nullptr);
    pthread_cond_init(&condition_, nullptr);
}

TimerThread::~TimerThread() {
    TimerThread::stop();
    pthread_cond_destroy(&condition_);
    pthread_mutex_destroy(&mutex_);
}

void TimerThread::start() {
    if (getStarted()) {
        throw std::runtime_error("Thread is already started.");
    }
    noOfCallbacks_ = 0;
    ThreadEx::start();
}

void TimerThread::stop() {
    terminate();
    {
        // With the mutex held the thread is either in its wait, and hears the notification, or still before the test
        // of the flag: none is lost. A callback in progress holds the mutex, and the join would wait for it anyway.
        MutexGuard guard(mutex_);
        pthread_cond_signal(&condition_);
    }
    ThreadEx::stop();
}

void TimerThread::execute() {
    const int periodMs = std::max(delayMs_.load(), 1);
    FaultReport faults("callback");
    timespec deadline = plusMilliseconds(monotonicNow(), periodMs);
    MutexGuard guard(mutex_);
    while (!getTerminated()) {
        if (pthread_cond_clockwait(&condition_, &mutex_, CLOCK_MONOTONIC, &deadline) != ETIMEDOUT) {
            continue;
        }
        ++noOfCallbacks_;
        callAndReport(faults);
        const timespec base = timerMode_ == TimerMode::FromCallbackEnd ? monotonicNow() : deadline;
        deadline = plusMilliseconds(base, periodMs);
    }
}

void TimerThread::callAndReport(FaultReport& faults) noexcept {
    try {
        std::string failure;
        try {
            executeTimerCallback();
        } catch (...) {
            failure = textOfCurrentException();
        }
        const std::string text = faults.after(failure, FaultReport::Clock::now());
        if (!text.empty()) {
            report(text);
        }
    } catch (...) {
        // No memory for words: the next period has another try.
    }
}

void TimerThread::executeTimerCallback() {
    if (callback_) {
        callback_();
    }
}

int TimerThread::getIntervalMs() const {
    return intervalMs_;
}

void TimerThread::setIntervalMs(int intervalMs) {
    intervalMs_ = intervalMs;
}

int TimerThread::getDelayMs() const {
    return delayMs_;
}

void TimerThread::setDelayMs(int delayMs) {
    delayMs_ = delayMs == -1 ? intervalMs_.load() : delayMs;
}

TimerMode TimerThread::getTimerMode() const {
    return timerMode_;
}

void TimerThread::setTimerMode(TimerMode mode) {
    timerMode_ = mode;
}

const std::function<void()>& TimerThread::getCallback() const {
    return callback_;
}

void TimerThread::setCallback(const std::function<void()>& callback) {
    callback_ = callback;
}

uint64_t TimerThread::getNoOfCallbacks() const {
    return noOfCallbacks_;
}

}  // namespace Harvane::Utils::Threading
