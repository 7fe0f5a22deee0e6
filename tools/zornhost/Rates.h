#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/zornhost/HostTree.h"
#include "tools/zornhost/RateMath.h"

namespace zornhost {

// One rate that a level can run at. A stream that can't has nothing.
struct LegalRate {
    int64_t rate = 0;                   // S/s, as the host shows it
    std::optional<int64_t> rawDivider;  // ticks of the base clock per sample of the raw stream
    std::optional<FilterChain> filtered;
    // Notes, by stream; the same for both above the channels.
    bool rawInForce = false;
    bool filteredInForce = false;
    bool rawAnswer = false;  // what the request becomes
    bool filteredAnswer = false;
};

// The legal rates of one level at one base clock, around a request.
struct RateLevel {
    std::string level;  // "system", "device", "channel"
    std::string name;   // as in the tree
    int64_t clock = 0;  // Hz
    bool clockInForce = false;
    int64_t of = 0;  // the rate that this level divides; the clock for the system
    std::vector<LegalRate> rates;
};

struct RateReport {
    int64_t request = 0;
    int64_t clockInForce = 0;  // Hz; 0 while it isn't known
    std::vector<RateLevel> levels;
};

// At most `count` rates at or below the request and as many above it, for each level and each selectable clock. For the
// clock in force each rate has been confirmed by the module's own check functions. For another clock, which isn't
// touched, it comes from the arithmetic alone. The request is that of the system in force unless it is given. Raises
// std::runtime_error without a device that has a base clock.
RateReport legalRates(const HostTree& tree, std::optional<int64_t> request, size_t count);

}  // namespace zornhost
