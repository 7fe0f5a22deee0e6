#include "simulator/model/Clock.h"

#include <chrono>
#include <cmath>
#include <utility>

namespace kestrixsim {

namespace {

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int64_t nanoseconds(double seconds) {
    // In two parts: the whole seconds of today need more digits than a nanosecond leaves.
    const double whole = std::floor(seconds);
    return static_cast<int64_t>(whole) * 1'000'000'000 + static_cast<int64_t>((seconds - whole) * 1e9);
}

}  // namespace

Clock::Clock(double factor, std::function<double()> now)
    : now_(now ? std::move(now) : std::function<double()>(steadySeconds)),
      factor_(factor > 0.0 ? factor : 1.0),
      start_(now_()) {}

Clock::Clock(const Scenario& scenario, std::function<double()> now, bool served)
    : Clock(scenario.timeFactor, std::move(now)) {
    programFactor_ = served ? factor_ : 1.0;
    steps_ = scenario.realtimeSteps;
    epoch_ =
        scenario.realtimeAtStart > 0.0
            ? nanoseconds(scenario.realtimeAtStart)
            : std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
                  .count();
}

int64_t Clock::realtimeAt(double seconds) const {
    return epoch_ + nanoseconds(seconds) + realtimeStepsAt(seconds);
}

int64_t Clock::realtimeStepsAt(double seconds) const {
    double steps = 0.0;
    const std::lock_guard lock(mutex_);
    for (const ReferenceScenario::Shift& step : steps_) {
        steps += seconds >= step.at ? step.byMicroseconds : 0.0;
    }
    return static_cast<int64_t>(std::llround(steps * 1e3));
}

void Clock::stepRealtime(double microseconds) {
    const double now = seconds();
    const std::lock_guard lock(mutex_);
    steps_.push_back({now, microseconds});
}

}  // namespace kestrixsim
