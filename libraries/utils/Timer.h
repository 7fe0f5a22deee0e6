#pragma once

#include <chrono>

namespace Harvane::Utils::Synchronization {

// Measures a span of time on the system clock. A step of that clock (NTP, PTP) shows in the result: a loop that must
// end needs a second bound.
class Timer {
public:
    Timer();

    void reset();
    // Seconds since construction or the last reset.
    double elapsed() const;
    double elapsedMs() const;

private:
    std::chrono::system_clock::time_point startTime_;
};

}  // namespace Harvane::Utils::Synchronization
