#include "tools/zornhost/ClockCheck.h"

#include <algorithm>
#include <cmath>

namespace zornhost {

namespace {
constexpr double windowS = 1.0;  // long enough for several blocks of any rate
constexpr double maxBlockS = 0.25;
constexpr double driftTimeS = 60.0;   // how fast the baseline follows a clock that runs off
constexpr double toleranceS = 0.025;  // jitter of cycle and reader
}  // namespace

std::optional<uint64_t> ClockCheck::observe(double timeS, uint64_t acquired) {
    if (acquired == 0 || rateHz_ <= 0.0) {
        return std::nullopt;
    }
    const double deliveredS = static_cast<double>(acquired) / rateHz_;
    if (!started_) {
        started_ = true;
        firstTimeS_ = timeS - deliveredS;
        lastAcquired_ = acquired;
    }
    const double stepS = static_cast<double>(acquired - lastAcquired_) / rateHz_;
    if (stepS <= maxBlockS) {
        blockS_ = std::max(blockS_, stepS);
    }
    lastAcquired_ = acquired;

    window_.push_back({timeS, timeS - firstTimeS_ - deliveredS});
    while (window_.front().timeS < timeS - windowS) {
        window_.pop_front();
    }
    if (timeS - firstTimeS_ < 1.5 * windowS) {
        return std::nullopt;
    }

    const double lagS = std::min_element(window_.begin(), window_.end(), [](const Point& a, const Point& b) {
                            return a.lagS < b.lagS;
                        })->lagS;
    if (!settled_) {
        settled_ = true;
        baselineS_ = lagS;
        lastUpdateS_ = timeS;
        return std::nullopt;
    }
    const double stepUpS = lagS - baselineS_;
    if (stepUpS > 0.6 * blockS_ + toleranceS) {
        baselineS_ = lagS;
        lastUpdateS_ = timeS;
        return static_cast<uint64_t>(std::llround(stepUpS * rateHz_));
    }
    // Below the baseline: the first stretches were late. Above: drift.
    baselineS_ += stepUpS < 0.0 ? stepUpS : stepUpS * std::min(1.0, (timeS - lastUpdateS_) / driftTimeS);
    lastUpdateS_ = timeS;
    return std::nullopt;
}

}  // namespace zornhost
