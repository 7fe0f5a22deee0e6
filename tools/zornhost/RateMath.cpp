#include "tools/zornhost/RateMath.h"

#include <algorithm>
#include <numeric>

namespace zornhost {

double toHz(const Harvane::RT::Core::Ratio& rate) {
    return static_cast<double>(rate.numerator) / static_cast<double>(rate.denominator);
}

Harvane::RT::Core::Ratio inLowestTerms(const Harvane::RT::Core::Ratio& rate) {
    const int64_t common = std::gcd(rate.numerator, rate.denominator);
    return common == 0 ? rate : Harvane::RT::Core::Ratio{rate.numerator / common, rate.denominator / common};
}

std::optional<FilterChain> filterChain(int64_t clock, int64_t rate) {
    constexpr int places = 38;
    constexpr uint32_t stagesWithoutRoom = 18;
    if (rate < 1 || rate > fastestFilteredRate(clock)) {
        return std::nullopt;
    }
    const uint64_t half = static_cast<uint64_t>(clock / 2);
    uint64_t end = 2 * static_cast<uint64_t>(rate);
    FilterChain chain;
    while (2 * end <= half && chain.halfBands < stagesWithoutRoom) {
        end *= 2;
        ++chain.halfBands;
    }
    if (end > half) {
        return std::nullopt;
    }
    // The lowest terms of half / end: exact in binary places only over a power of two.
    const uint64_t common = std::gcd(half, end);
    const uint64_t denominator = end / common;
    if ((denominator & (denominator - 1)) != 0 || denominator > (uint64_t{1} << places)) {
        return std::nullopt;
    }
    chain.ratioBits = (half / common - denominator) * ((uint64_t{1} << places) / denominator);
    if (chain.halfBands == stagesWithoutRoom) {
        chain.halfBands = 0;
    }
    return chain;
}

int64_t fastestFilteredRate(int64_t clock) {
    constexpr int64_t limit = 2000000;
    const auto divisors = divisorsOf(clock);
    const auto above = std::upper_bound(divisors.begin(), divisors.end(), limit);
    return above == divisors.begin() ? 0 : *(above - 1);
}

std::vector<int64_t> divisorsOf(int64_t number) {
    std::vector<int64_t> low;
    std::vector<int64_t> high;
    for (int64_t divisor = 1; divisor <= number / divisor; ++divisor) {
        if (number % divisor != 0) {
            continue;
        }
        low.push_back(divisor);
        if (divisor != number / divisor) {
            high.push_back(number / divisor);
        }
    }
    low.insert(low.end(), high.rbegin(), high.rend());
    return low;
}

}  // namespace zornhost
