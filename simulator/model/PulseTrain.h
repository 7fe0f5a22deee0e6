#pragma once

#include <cstdint>

#include "simulator/model/Scenario.h"

namespace kestrixsim {

// The pulses of one reference, numbered by the whole seconds of real time since the instrument was made: pulse n
// belongs to second n.
class PulseTrain {
public:
    // `epochFraction`: of a second, what the real-time clock read beyond a whole one when the instrument was made.
    PulseTrain(const ReferenceScenario& reference, uint64_t seed, double epochFraction);

    // The first pulse that comes behind `instant` (of the instrument's time), there or not.
    int64_t firstAfter(double instant) const;
    // Where it belongs: without jitter, wander and spikes.
    double idealTime(int64_t number) const;
    double time(int64_t number) const;
    // Whether it comes. Behind `settle` seconds in which there was a signal all the time.
    bool comes(int64_t number, double settle) const;

private:
    double shifts(double at) const;

    ReferenceScenario reference_;
    uint64_t seed_;
    double epochFraction_;
    mutable int64_t wandered_ = 0;  // pulses that wander_ holds
    mutable double wander_ = 0.0;   // seconds
};

}  // namespace kestrixsim
