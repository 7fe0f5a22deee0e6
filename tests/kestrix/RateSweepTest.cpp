#include <algorithm>
#include <cstdint>
#include <limits>
#include <numeric>
#include <stdexcept>

#include "modules/daq/daqdevices/kestrix/src/DspControl.h"
#include "tests/kestrix/KestrixFixture.h"

// Every rate rule of the instrument against an oracle that knows the mathematics only: the divisors of a clock by its
// prime factors, and exact binary fractions by reduction with the greatest common divisor.
namespace Harvane::RT::Modules::Daq {

namespace {

constexpr int lastRequest = 15000001;
constexpr int exhaustiveBelow = 200000;
constexpr int minRate = 100;

// The divisors of a number by its prime factors, ascending.
std::vector<int> divisorsOf(int number) {
    std::vector<int> divisors{1};
    for (int prime = 2; number > 1; ++prime) {
        if (static_cast<int64_t>(prime) * prime > number) {
            prime = number;
        }
        const std::vector<int> others(divisors);
        for (int power = prime; number % prime == 0; number /= prime, power *= number % prime == 0 ? prime : 1) {
            for (const int divisor : others) {
                divisors.push_back(divisor * power);
            }
        }
    }
    std::sort(divisors.begin(), divisors.end());
    return divisors;
}

struct Chain {
    bool exact = false;
    uint32_t halfBands = 0;
    uint64_t ratio = 0;
    bool operator==(const Chain&) const = default;
};

// From half the clock down to the rate: 2 * rate * 2^n lies in the upper half of it, and what is left is an exact
// binary fraction between 1 and 2 of at most 38 places. The count of stages has no room for 18.
Chain chainOf(int clock, int rate) {
    const uint64_t half = static_cast<uint64_t>(clock) / 2;
    const uint64_t start = 2 * static_cast<uint64_t>(rate);
    if (start > half) {
        return {};
    }
    uint32_t stages = 0;
    while (stages < 18 && (start << (stages + 1)) <= half) {
        ++stages;
    }
    const uint64_t end = start << stages;
    const uint64_t common = std::gcd(half, end);
    const uint64_t numerator = half / common;
    const uint64_t denominator = end / common;
    const uint64_t places = uint64_t{1} << 38;
    if (denominator == 0 || (denominator & (denominator - 1)) != 0 || denominator > places) {
        return {};
    }
    return {true, stages == 18 ? 0 : stages, (numerator - denominator) * (places / denominator)};
}

struct ClockOracle {
    explicit ClockOracle(int clock) : clock(clock), filteredLimit(clock == 15000000 ? 1875000 : 2000000) {
        for (const int divisor : divisorsOf(clock)) {
            if (divisor > 2000000 || (divisor > 8 && chainOf(clock, divisor).exact)) {
                legal.push_back(divisor);
            }
        }
    }
    int systemRate(int request) const {
        const auto above = std::upper_bound(legal.begin(), legal.end(), request);
        return above == legal.begin() ? 10 : *(above - 1);
    }

    const int clock;
    const int filteredLimit;
    std::vector<int> legal;
};

// What the channels of one device rate can run at.
class ChannelOracle {
public:
    ChannelOracle(int clock, int filteredLimit, int deviceRate)
        : clock_(clock), limit_(filteredLimit), deviceRate_(deviceRate) {
        for (const int divisor : divisorsOf(deviceRate)) {
            if (chainOf(clock, deviceRate / divisor).exact) {
                dividers_.push_back(divisor);
            }
        }
    }
    // A number that some divider shows is that divider's; any other moves down to the next one.
    int raw(int request) const {
        const int limited = std::max(minRate, std::min(request, clock_));
        for (int divider = std::max(1, deviceRate_ / (limited + 1)); divider <= deviceRate_ / limited; ++divider) {
            if (deviceRate_ / divider == limited) {
                return limited;
            }
        }
        return deviceRate_ / firstDivider(request, clock_);
    }
    int filtered(int request) const {
        const int first = firstDivider(request, limit_);
        const auto up = std::lower_bound(dividers_.begin(), dividers_.end(), first);
        // A divider that gives 8 or less counts when it is the request's own or the first such one.
        if (up != dividers_.end() && (*up == first || deviceRate_ / (*up - 1) > 8)) {
            return deviceRate_ / *up;
        }
        return up == dividers_.begin() ? deviceRate_ : deviceRate_ / *(up - 1);
    }

private:
    // The smallest divider that does not exceed the request.
    int firstDivider(int request, int maxRate) const {
        const int rate = std::min(std::max(request, minRate), maxRate);
        return deviceRate_ / rate + (deviceRate_ % rate != 0 ? 1 : 0);
    }
    const int clock_;
    const int limit_;
    const int deviceRate_;
    std::vector<int> dividers_;
};

// Requests: all below `exhaustiveBelow`, the neighbourhood of every edge, and every 11th of the rest.
std::vector<int> requestsAround(const std::vector<int>& edges, int all) {
    std::vector<int> requests;
    for (int request = 1; request < all; ++request) {
        requests.push_back(request);
    }
    for (int request = all; request <= lastRequest; request += 11) {
        requests.push_back(request);
    }
    for (const int edge : edges) {
        for (int request = edge - 2; request <= edge + 2; ++request) {
            requests.push_back(request);
        }
    }
    requests.push_back(lastRequest);
    return requests;
}

struct RateSweep : KestrixFixture, testing::WithParamInterface<int> {
    RateSweep() : clock(GetParam()), oracle(clock) {
        bringUp(warmScenario(1));
        if (clock != ai().baseClock) {
            ai().setBaseClock(clock);
        }
    }
    const int clock;
    const ClockOracle oracle;
};

}  // namespace

TEST_P(RateSweep, NearestRate) {
    for (const int request : requestsAround(oracle.legal, exhaustiveBelow)) {
        ASSERT_EQ(ai().checkRate(request), oracle.systemRate(request)) << request;
    }
    for (const int request : {-5, 0, std::numeric_limits<int>::max()}) {
        ASSERT_EQ(ai().checkRate(request), oracle.systemRate(request)) << request;
    }
    // Through the whole system the instrument's lowest rate comes first.
    for (const int request : {1, 99, 100, 101, 48000, lastRequest}) {
        ASSERT_EQ(controller->checkSampleRate(request), oracle.systemRate(std::max(request, minRate))) << request;
    }
}

TEST_P(RateSweep, ResamplingChain) {
    // One by one as far as the filtered stream goes: which rates are exact follows no smooth rule.
    for (const int rate : requestsAround(oracle.legal, oracle.filteredLimit + 1)) {
        const Chain expected = chainOf(clock, rate);
        Chain found;
        found.exact = DspControl::calculateRatioValue(clock, static_cast<uint32_t>(rate), found.halfBands, found.ratio);
        ASSERT_EQ(found, expected) << rate;
    }
}

TEST_P(RateSweep, ChannelRates) {
    const auto compare = [&](const ChannelOracle& channels, int deviceRate, int request) {
        ASSERT_EQ(ai().checkChannelRate(0, deviceRate, request), channels.raw(request)) << deviceRate << " " << request;
        ASSERT_EQ(ai().checkChannelRate(1, deviceRate, request), channels.filtered(request))
            << deviceRate << " " << request;
    };
    // Every rate that a device can have, and some that none has.
    std::vector<int> deviceRates(oracle.legal);
    deviceRates.insert(deviceRates.end(), {9973, 44100, 65536, 99999, 1234567, 14999999});
    std::erase_if(deviceRates, [](int rate) { return rate < minRate; });
    for (const int deviceRate : deviceRates) {
        const ChannelOracle channels(clock, oracle.filteredLimit, deviceRate);
        // Above the device's rate the answer is one and the same up to the stream's limit.
        std::vector<int> requests;
        for (int request = 1; request <= lastRequest; request += request < 3000 ? 1 : 1 + request / 300) {
            requests.push_back(request);
        }
        for (const int divider : divisorsOf(deviceRate)) {
            requests.insert(requests.end(), {deviceRate / divider - 1, deviceRate / divider, deviceRate / divider + 1});
        }
        for (const int request : requests) {
            ASSERT_NO_FATAL_FAILURE(compare(channels, deviceRate, request));
        }
    }
    EXPECT_EQ(ai().checkChannelRate(0, 0, 100), 0);
    EXPECT_EQ(ai().checkChannelRate(1, 0, 100), 0);
    EXPECT_GT(ai().checkChannelRate(0, std::numeric_limits<int>::max(), clock), 0);
    EXPECT_THROW(ai().checkChannelRate(2, 1000, 100), std::out_of_range);
}

TEST_P(RateSweep, RateNeedsItsClock) {
    EXPECT_EQ(ai().getBaseClockForSampleRate(46875), 15000000);
    EXPECT_EQ(ai().getBaseClockForSampleRate(16000), 10000000);
    EXPECT_EQ(ai().getBaseClockForSampleRate(50000), clock);  // both can: the present one stays
    EXPECT_EQ(ai().getBaseClockForSampleRate(44100), clock);  // neither can
}

INSTANTIATE_TEST_SUITE_P(Clocks, RateSweep, testing::Values(15000000, 10000000));

}  // namespace Harvane::RT::Modules::Daq
