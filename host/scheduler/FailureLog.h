#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <zorn/logger/logger.h>

namespace Harvane::RT::Core {

inline constexpr const char* SchedulerLoggerName = "Scheduler";

// Logs failing cycles without flooding: the first at once, then at most one line a second, which tells how many there
// were. One thread at a time.
class FailureLog {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    FailureLog();

    void reset();
    // In the cycle: counts and takes the thread's error text (and with it the source object that the text refers to).
    void take(size_t module, ErrCode code);
    // After the cycle: the line, when one is due.
    void write(TimePoint now);
    void report(size_t module, ErrCode code, TimePoint now) {
        take(module, code);
        write(now);
    }
    // At the end of a run: what was held back.
    void finish();

private:
    void writeLine();

    uint64_t pending_ = 0;  // failures since the last line
    bool wroteBefore_ = false;
    TimePoint lastLine_;
    size_t module_ = 0;
    ErrCode code_ = 0;
    std::string text_;
};

}  // namespace Harvane::RT::Core
