#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "simulator/model/Scenario.h"

namespace kestrixsim {

// The instrument's time. Thread-safe if the source is.
class Clock {
public:
    // `factor`: seconds of the instrument in a second of the source. `now`: steady seconds; empty: the steady clock.
    Clock(double factor, std::function<double()> now);
    // `served`: programs go by this clock and not by the source.
    Clock(const Scenario& scenario, std::function<double()> now, bool served);

    double seconds() const { return (now_() - start_) * factor_; }  // instrument time since it was made
    // What goes by in a program that waits; and the seconds of it in a second of the source.
    double programSeconds() const { return (now_() - start_) * programFactor_; }
    double programFactor() const { return programFactor_; }

    // The computer's real-time clock, nanoseconds since 1970: runs with the instrument's time, and steps.
    int64_t realtime() const { return realtimeAt(seconds()); }
    int64_t realtimeAt(double seconds) const;                             // what it showed at a time of the instrument
    int64_t realtimeSteps() const { return realtimeStepsAt(seconds()); }  // what is in it by steps, ns
    int64_t realtimeStepsAt(double seconds) const;
    void stepRealtime(double microseconds);
    // What it would read without a step when `seconds` was 0: whole seconds since 1970, and the rest.
    int64_t epochSeconds() const { return epoch_ / 1'000'000'000; }
    double epochFraction() const { return static_cast<double>(epoch_ % 1'000'000'000) * 1e-9; }

private:
    std::function<double()> now_;
    double factor_;
    double programFactor_ = 1.0;
    double start_;
    int64_t epoch_ = 0;  // ns
    mutable std::mutex mutex_;
    std::vector<ReferenceScenario::Shift> steps_;
};

}  // namespace kestrixsim
