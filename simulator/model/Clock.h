#pragma once

#include <functional>

namespace kestrixsim {

// The instrument's time. Thread-safe if the source is.
class Clock {
public:
    // `factor`: seconds of the instrument in a second of the source. `now`: steady seconds; empty: the steady clock.
    Clock(double factor, std::function<double()> now);

    double seconds() const { return (now_() - start_) * factor_; }  // instrument time since it was made
    double realSeconds() const { return now_() - start_; }          // what a person waits for

private:
    std::function<double()> now_;
    double factor_;
    double start_;
};

}  // namespace kestrixsim
