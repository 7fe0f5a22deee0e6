#include "modules/daq/daqdevices/kestrix/src/DspControl.h"

#include <cmath>
#include <gtest/gtest.h>
#include <stdexcept>

#include "tests/kestrix/FakeRegisterAccess.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

using Store = std::pair<uint64_t, uint32_t>;

class DspControlTest : public testing::Test {
protected:
    static constexpr uint64_t base = 0xA0030000;
    static constexpr uint64_t rspLo = base + 0x100;
    static constexpr uint64_t rspHi = base + 0x104;
    static constexpr uint64_t hbNum = base + 0x108;
    static constexpr uint64_t rsd = base + 0x10C;
    static constexpr uint64_t clear = base + 0x120;
    static constexpr uint64_t enable = base + 0x124;
    static constexpr uint64_t len = base + 0x130;
    static constexpr uint64_t filterType = base + 0x90;

    size_t filterStores() const {
        size_t count = 0;
        for (const Store& store : access->stores) {
            count += store.first <= base + 0x80 ? 1 : 0;
        }
        return count;
    }

    std::shared_ptr<FakeRegisterAccess> access = std::make_shared<FakeRegisterAccess>();
    DspControl dsp{access, 3};
};

TEST_F(DspControlTest, UnusedStreamsAreLeftAlone) {
    dsp.configureDspLogic(15000000, 0, 0);
    EXPECT_TRUE(access->stores.empty());
}

TEST_F(DspControlTest, RawStreamTakesItsDecimation) {
    dsp.configureDspLogic(15000000, 1000, 0);
    EXPECT_EQ(access->stores, (std::vector<Store>{{rsd, 15000}, {len, 0xFFFFFFFF}}));
}

TEST_F(DspControlTest, GivenDecimationWinsOverTheWholeNumberedRate) {
    dsp.configureDspLogic(15000000, 142, 0, 105000);
    EXPECT_EQ(access->words[rsd], 105000u);
}

TEST_F(DspControlTest, FilteredStreamTakesFilterRatioAndStages) {
    access->words[rspHi] = 0xABCDEF00;  // reserved bits above the field
    dsp.configureDspLogic(15000000, 0, 50000);
    EXPECT_EQ(access->stores.front(), (Store{filterType, 0}));
    EXPECT_EQ(filterStores(), 33u);
    EXPECT_EQ(access->words[rspLo], static_cast<uint32_t>(47244640256u));
    EXPECT_EQ(access->words[rspHi], 0xABCDEF00u | (47244640256u >> 32));
    EXPECT_EQ(access->words[hbNum], 6u);
    EXPECT_EQ(access->words.count(rsd), 0u);
}

TEST_F(DspControlTest, RateAboveTheLimitTakesTheFilterOnly) {
    dsp.configureDspLogic(15000000, 0, 2000000);
    EXPECT_EQ(filterStores(), 33u);
    for (const uint64_t address : {rspLo, rspHi, hbNum}) {
        EXPECT_EQ(access->words.count(address), 0u);
    }
    dsp.configureDspLogic(10000000, 0, 2000000);  // within the limit of the other clock
    EXPECT_EQ(access->words[hbNum], 0u);
    EXPECT_EQ(access->words[rspLo], static_cast<uint32_t>(68719476736u));
    EXPECT_EQ(access->words[rspHi], 68719476736u >> 32);
}

TEST_F(DspControlTest, InexactFilteredRateIsRefused) {
    try {
        dsp.configureDspLogic(10000000, 0, 3000);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "DspControl::calculateRatioValue failed");
    }
}

TEST_F(DspControlTest, CoefficientsAreWrittenInOrderAsTwentySevenBits) {
    dsp.setFilterCoefficients();
    ASSERT_EQ(access->stores.size(), 33u);
    int64_t sum = 0;
    for (size_t k = 0; k < 33; ++k) {
        EXPECT_EQ(access->stores[k].first, base + 4 * k);
        const uint32_t word = access->stores[k].second;
        sum += word >= 1u << 26 ? static_cast<int64_t>(word) - (1 << 27) : word;
    }
    EXPECT_EQ(access->words[base + 0x08], 0x7FFFC58u);
    EXPECT_EQ(access->words[base + 0x80], 33554432u);
    // Gain at zero frequency: each side tap counts twice, the centre once; 2^26 is a gain of 1.
    EXPECT_NEAR(static_cast<double>(2 * sum - 33554432) / (1 << 26), 1.0, 1e-3);
}

TEST_F(DspControlTest, EnablesWhatHasARate) {
    dsp.configureDspLogic(15000000, 1000, 0);
    dsp.enableSampleProcessing();
    EXPECT_EQ(access->words[enable], 2u);
    dsp.configureDspLogic(15000000, 0, 1000);
    dsp.enableSampleProcessing();
    EXPECT_EQ(access->words[enable], 1u);
    dsp.disableSampleProcessing();
    EXPECT_EQ(access->words[enable], 0u);
}

TEST_F(DspControlTest, ClearIsRequestedAwaitedAndAcknowledged) {
    int pollsLeft = 3;
    access->beforeRead = [&](uint64_t address) {
        // The first reads belong to the stores of single bits; the request is there from then on.
        if (address == clear && (access->words[clear] & 1) != 0 && --pollsLeft == 0) {
            access->words[clear] |= 2;
        }
    };
    dsp.clearDspChain();
    EXPECT_EQ(access->words[clear], 1u);  // the request stays, the completion flag is gone
}

TEST_F(DspControlTest, ClearThatNeverCompletesEndsAfterItsPolls) {
    int reads = 0;
    access->beforeRead = [&](uint64_t) { ++reads; };
    try {
        dsp.clearDspChain();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "DspControl::Clear process status timeout");
    }
    EXPECT_GT(reads, 20);
    EXPECT_LT(reads, 120);
}

struct RatioCase {
    int clock;
    uint32_t rate;
    bool exact;
    uint32_t halfBands;
    uint64_t ratio;
};

TEST(DspRatioTest, SplitsTheRateIntoStagesAndRatio) {
    const RatioCase cases[] = {
        {15000000, 1875000, true, 1, 0},
        {15000000, 1000000, true, 1, 240518168576},
        {15000000, 50000, true, 6, 47244640256},
        {15000000, 100, true, 15, 39694893056},
        {10000000, 16000, true, 7, 60666413056},
        {15000000, 10, true, 0, 118338093056},
        {15000000, 7, false, 0, 0},
        {10000000, 3000, false, 0, 0},
        {15000000, 0, false, 0, 0},
        {15000000, 7500000, false, 0, 0},  // above a quarter of the clock: the ratio would be below 1
        {15000000, 3756032, false, 0, 0},
        {15000000, 15000000, false, 0, 0},
    };
    for (const RatioCase& expected : cases) {
        uint32_t halfBands = 99;
        uint64_t ratio = 99;
        EXPECT_EQ(DspControl::calculateRatioValue(expected.clock, expected.rate, halfBands, ratio), expected.exact)
            << expected.clock << " " << expected.rate;
        if (expected.exact) {
            EXPECT_EQ(halfBands, expected.halfBands) << expected.rate;
            EXPECT_EQ(ratio, expected.ratio) << expected.rate;
        }
    }
}

TEST(DspRatioTest, EveryDivisorOfTheClockIsExact) {
    for (const int clock : {15000000, 10000000}) {
        for (int rate = 100; rate <= DspControl::maxFilteredRate(clock); ++rate) {
            if (clock % rate != 0) {
                continue;
            }
            uint32_t halfBands = 0;
            uint64_t ratio = 0;
            ASSERT_TRUE(DspControl::calculateRatioValue(clock, static_cast<uint32_t>(rate), halfBands, ratio)) << rate;
            // Back from the registers to the rate.
            const double resampling = 1.0 + static_cast<double>(ratio) / 274877906944.0;
            const double back = clock / 2.0 / resampling / std::ldexp(2.0, static_cast<int>(halfBands));
            ASSERT_NEAR(back, rate, rate * 1e-12) << clock;
            ASSERT_LT(ratio, 1ull << 38);
        }
    }
}

TEST(DspDelayTest, GivesMilliseconds) {
    EXPECT_NEAR(DspControl::calculateDspDelay(15000000, 1000000), 0.0404166667, 1e-9);
    EXPECT_NEAR(DspControl::calculateDspDelay(15000000, 50000), 0.8210104, 1e-6);
    EXPECT_NEAR(DspControl::calculateDspDelay(15000000, 100), 410.0010727, 1e-6);
    EXPECT_EQ(DspControl::calculateDspDelay(15000000, 0), 0.0);
    EXPECT_EQ(DspControl::calculateDspDelay(15000000, 15000000), 0.0);
}

}  // namespace
