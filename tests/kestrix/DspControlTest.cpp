#include "modules/daq/daqdevices/kestrix/src/DspControl.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/registers/FailureOf.h"
#include "tests/registers/FakeAccess.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixtest::failureOf;
using kestrixtest::FakeAccess;

namespace {

using Stores = std::vector<FakeAccess::Store>;

struct DspControlTest : testing::Test {
    static constexpr uint64_t base = 0xA0030000;
    static constexpr uint64_t filterType = base + 0x90;
    static constexpr uint64_t rspLo = base + 0x100;
    static constexpr uint64_t rspHi = base + 0x104;
    static constexpr uint64_t hbNum = base + 0x108;
    static constexpr uint64_t rsd = base + 0x10C;
    static constexpr uint64_t clear = base + 0x120;
    static constexpr uint64_t enable = base + 0x124;
    static constexpr uint64_t len = base + 0x130;

    // What a configuration stores outside of the filter's 33 coefficients, which go from the first word to the last.
    Stores configure(int clock, uint32_t rawRate, uint32_t filteredRate, uint32_t decimation = 0) {
        access->stores.clear();
        dsp.configureDspLogic(clock, rawRate, filteredRate, decimation);
        Stores stores = access->stores;
        uint64_t next = base;
        std::erase_if(stores, [&](const auto& store) { return store.first == next && (next += 4) <= base + 0x84; });
        EXPECT_EQ(next, filteredRate != 0 ? base + 0x84 : base);
        return stores;
    }

    std::shared_ptr<FakeAccess> access = std::make_shared<FakeAccess>();
    DspControl dsp{access, 3};
};

TEST_F(DspControlTest, EachStreamTakesWhatItsRateNeeds) {
    EXPECT_EQ(configure(15000000, 0, 0), Stores{});
    EXPECT_EQ(configure(15000000, 1000, 0), (Stores{{rsd, 15000}, {len, 0xFFFFFFFF}}));
    EXPECT_EQ(configure(15000000, 142, 0, 105000), (Stores{{rsd, 105000}, {len, 0xFFFFFFFF}}));
    access->setWord(rspHi, 0xABCDEF00);  // reserved bits above the field
    EXPECT_EQ(configure(15000000, 0, 50000),
              (Stores{{filterType, 0}, {rspLo, 0}, {rspHi, 0xABCDEF00 | 11}, {hbNum, 6}}));
    // Above the limit of the clock the filter only.
    EXPECT_EQ(configure(15000000, 0, 2000000), (Stores{{filterType, 0}}));
    EXPECT_EQ(configure(10000000, 0, 2000000),
              (Stores{{filterType, 0}, {rspLo, 0}, {rspHi, 0xABCDEF00 | 16}, {hbNum, 0}}));
    EXPECT_EQ(failureOf([&] { dsp.configureDspLogic(10000000, 0, 3000); }), "DspControl::calculateRatioValue failed");
}

TEST_F(DspControlTest, ClearIsRequestedAwaitedAndAcknowledged) {
    int pollsLeft = 3;
    access->beforeRead = [&](uint64_t address) {
        // The first reads belong to the stores of single bits; the request is there from then on.
        if (address == clear && (access->word(clear) & 1) != 0 && --pollsLeft == 0) {
            access->setWord(clear, access->word(clear) | 2);
        }
    };
    dsp.clearDspChain();
    EXPECT_EQ(access->word(clear), 1u);  // the request stays, the completion flag is gone

    access->beforeRead = nullptr;
    access->accesses.clear();
    EXPECT_EQ(failureOf([&] { dsp.clearDspChain(); }), "DspControl::Clear process status timeout");
    EXPECT_GT(access->accesses.size(), 20u);
    EXPECT_LT(access->accesses.size(), 120u);
}

TEST_F(DspControlTest, OneStreamIsSwitchedOffWhenTheOtherCannotBe) {
    configure(15000000, 1000, 1000);
    dsp.enableSampleProcessing();
    EXPECT_EQ(access->word(enable), 3u);
    int reads = 0;
    access->beforeRead = [&](uint64_t) {
        if (++reads == 1) {
            throw std::runtime_error("once");
        }
    };
    EXPECT_EQ(failureOf([&] { dsp.disableSampleProcessing(); }), "once");
    EXPECT_EQ(access->word(enable), 2u);
    dsp.disableSampleProcessing();
    EXPECT_EQ(access->word(enable), 0u);
}

TEST(DspDelayTest, GivesMilliseconds) {
    EXPECT_NEAR(DspControl::calculateDspDelay(15000000, 1000000), 0.0404166667, 1e-9);
    EXPECT_NEAR(DspControl::calculateDspDelay(15000000, 50000), 0.8210104, 1e-6);
    EXPECT_NEAR(DspControl::calculateDspDelay(15000000, 100), 410.0010727, 1e-6);
    EXPECT_EQ(DspControl::calculateDspDelay(15000000, 0), 0.0);
    EXPECT_EQ(DspControl::calculateDspDelay(15000000, 15000000), 0.0);
}

}  // namespace
