#include "modules/daq/daqdevices/kestrix/src/AdcControl.h"

#include <gtest/gtest.h>

#include "tests/kestrix/FakeRegisterAccess.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

constexpr uint64_t enableWord = 0xA0200000;
constexpr uint64_t triggerWord = 0xA0200004;
constexpr uint64_t counterWord = 0xA0200078;

struct AdcCase {
    bool simulation;
    bool standalone;
    uint32_t enable;
    uint32_t trigger;
    uint32_t counters;
};

TEST(AdcControlTest, EnablesModulesByTheWayOfStarting) {
    const std::vector<bool> enabled{true, false, true};
    const AdcCase cases[] = {
        {false, true, 1, 0x0005, 0},
        {false, false, 1, 0x0500, 0},
        {true, true, 0, 0x0005, 0x05010000},
    };
    for (const AdcCase& expected : cases) {
        const auto access = std::make_shared<FakeRegisterAccess>();
        access->words[counterWord] = 0xFF030000;  // left over from somebody else
        AdcControl adc(access);
        EXPECT_TRUE(access->stores.empty());
        adc.enableAdcs(enabled, expected.simulation, expected.standalone);
        EXPECT_EQ(access->words[enableWord], expected.enable);
        EXPECT_EQ(access->words[triggerWord], expected.trigger);
        EXPECT_EQ(access->words[counterWord], expected.counters);
        adc.disableAdcs();
        for (const uint64_t word : {enableWord, triggerWord, counterWord}) {
            EXPECT_EQ(access->words[word], 0u);
        }
    }
}

TEST(AdcControlTest, ConvertersStartAfterTheMaskIsSet) {
    const auto access = std::make_shared<FakeRegisterAccess>();
    AdcControl adc(access);
    adc.enableAdcs(std::vector<bool>(8, true), false, true);
    ASSERT_GE(access->stores.size(), 2u);
    EXPECT_EQ(access->stores.back(), (std::pair<uint64_t, uint32_t>{enableWord, 1}));
    EXPECT_EQ((access->stores.end() - 2)->second, 0xFFu);
    EXPECT_EQ(access->stores.front(), (std::pair<uint64_t, uint32_t>{enableWord, 0}));
}

TEST(AdcControlTest, MoreModulesThanConvertersDoNoHarm) {
    const auto access = std::make_shared<FakeRegisterAccess>();
    AdcControl adc(access);
    std::vector<bool> enabled(40, true);
    enabled[1] = false;
    adc.enableAdcs(enabled, true, true);
    EXPECT_EQ(access->words[triggerWord], 0xFDu);
    EXPECT_EQ(access->words[counterWord], 0xFD010000u);
}

}  // namespace
