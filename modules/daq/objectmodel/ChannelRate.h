#pragma once

#include <algorithm>
#include <cstdint>

namespace Harvane::RT::Modules::Daq {

// The rate of a stream that takes every divider-th sample of a full rate in Hz. Users see and write a whole number; the
// exact rate is the ratio. A whole number c stands for the divider fullRate / c, truncated, in every process: so what
// is shown can be stored, loaded and written again without a change.
struct ChannelRate {
    int fullRate = 1000;
    int divider = 1;

    // The rate that a number stands for. 0 or below, or above the full rate, means the full rate.
    static ChannelRate of(int fullRate, int shown) {
        return {fullRate, shown < 1 || shown >= fullRate ? 1 : fullRate / shown};
    }
    // Whether a rate is shown by this very number: such a request needs no adjustment.
    static bool isShown(int fullRate, int request) {
        return request > 0 && fullRate > 0 && of(fullRate, request).shown() == request;
    }
    // The number of the fastest rate at or below a request of 1 or more.
    static int atOrBelow(int fullRate, int request) {
        if (isShown(fullRate, request)) {
            return request;
        }
        const std::int64_t full = fullRate;
        return static_cast<int>(full / std::max<std::int64_t>((full + request - 1) / request, 1));
    }

    // Whole samples per second, truncated.
    int shown() const { return fullRate / std::max(divider, 1); }

    bool operator==(const ChannelRate&) const = default;
};

}  // namespace Harvane::RT::Modules::Daq
