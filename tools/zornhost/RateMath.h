#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <zorn/types/values.h>

// What the instrument's arithmetic makes of a rate. The raw stream takes every n-th sample of the base clock; the
// filtered stream comes down from half the clock in three steps:
//
//     rate = clock / 2 / (1 + ratio / 2^38) / 2^(halfBands + 1)
//
// with a resampling ratio of 1 up to below 2, held in 38 binary places, and half-band stages that halve the rate each.
namespace zornhost {

struct FilterChain {
    uint32_t halfBands = 0;
    uint64_t ratioBits = 0;  // the places behind the 1, times 2^38

    double ratio() const { return 1.0 + static_cast<double>(ratioBits) / 274877906944.0; }
};

// Empty for a rate that has no exact chain, above the fastest filtered rate included.
std::optional<FilterChain> filterChain(int64_t clock, int64_t rate);

// The fastest rate of the filtered stream: the largest whole division of the clock up to 2 MHz.
int64_t fastestFilteredRate(int64_t clock);

// A rate in samples per second as a number, and the same ratio with nothing left to cancel.
double toHz(const Harvane::RT::Core::Ratio& rate);
Harvane::RT::Core::Ratio inLowestTerms(const Harvane::RT::Core::Ratio& rate);

// All divisors, ascending; none of a number below 1.
std::vector<int64_t> divisorsOf(int64_t number);

}  // namespace zornhost
