#pragma once

#include <cstdint>
#include <deque>
#include <optional>

namespace zornhost {

// Notices samples that never reached the host's ring: the stream has no marks, so what a driver dropped because nobody
// read shows only as time that went by without samples. The count of samples is held against the monotonic clock: it
// may lag by a block and drift by some ppm, but it may not step.
class ClockCheck {
public:
    explicit ClockCheck(double rateHz) : rateHz_(rateHz) {}

    // `acquired` samples were there at `timeS`. Returns an estimate of how many went missing since the last answer.
    std::optional<uint64_t> observe(double timeS, uint64_t acquired);

private:
    struct Point {
        double timeS;
        double lagS;
    };

    double rateHz_;
    double firstTimeS_ = 0.0;
    bool started_ = false;
    bool settled_ = false;
    double blockS_ = 0.0;  // the largest step in which samples have come, up to a quarter of a second
    uint64_t lastAcquired_ = 0;
    double baselineS_ = 0.0;  // smallest lag of the stretches seen so far, following slow drift
    double lastUpdateS_ = 0.0;
    std::deque<Point> window_;
};

}  // namespace zornhost
