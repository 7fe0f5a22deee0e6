#include "simulator/model/PulseTrain.h"

#include <algorithm>
#include <cmath>

#include "simulator/model/Hash.h"

namespace kestrixsim {

PulseTrain::PulseTrain(const ReferenceScenario& reference, uint64_t seed, double epochFraction)
    : reference_(reference), seed_(mix(seed)), epochFraction_(epochFraction) {}

double PulseTrain::shifts(double at) const {
    double sum = 0.0;
    for (const ReferenceScenario::Shift& step : reference_.steps) {
        sum += at >= step.at ? step.byMicroseconds * 1e-6 : 0.0;
    }
    return sum;
}

double PulseTrain::idealTime(int64_t number) const {
    const double at = static_cast<double>(number) - epochFraction_;
    return at + reference_.offsetSeconds + shifts(at);
}

int64_t PulseTrain::firstAfter(double instant) const {
    auto number =
        static_cast<int64_t>(std::floor(instant + epochFraction_ - reference_.offsetSeconds - shifts(instant)));
    while (time(number) <= instant) {
        ++number;
    }
    return number;
}

double PulseTrain::time(int64_t number) const {
    const auto stream = static_cast<uint64_t>(number) << 8;
    if (reference_.wanderNs != 0.0) {
        if (number < wandered_) {
            wandered_ = 0;
            wander_ = 0.0;
        }
        for (; wandered_ < number; ++wandered_) {
            wander_ += reference_.wanderNs * 1e-9 * gaussian(seed_ + 128 + (static_cast<uint64_t>(wandered_) << 8));
        }
    }
    double time = idealTime(number) + wander_;
    if (reference_.jitterNs != 0.0) {
        time += reference_.jitterNs * 1e-9 * gaussian(seed_ + stream);
    }
    const double at = static_cast<double>(number) - epochFraction_;
    for (const ReferenceScenario::Shift& spike : reference_.spikes) {
        time += at >= spike.at && at - 1.0 < spike.at ? spike.byMicroseconds * 1e-6 : 0.0;
    }
    return time;
}

bool PulseTrain::comes(int64_t number, double settle) const {
    const double at = static_cast<double>(number) - epochFraction_;
    return reference_.present && std::none_of(reference_.outages.begin(), reference_.outages.end(),
                                              [&](const auto& o) { return at >= o.from && at < o.until + settle; });
}

}  // namespace kestrixsim
