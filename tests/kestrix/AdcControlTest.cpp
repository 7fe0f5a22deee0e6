#include "modules/daq/daqdevices/kestrix/src/AdcControl.h"

#include <gtest/gtest.h>

#include "tests/registers/FailureOf.h"
#include "tests/registers/FakeAccess.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixtest::FakeAccess;

namespace {

constexpr uint64_t enableWord = 0xA0200000;
constexpr uint64_t triggerWord = 0xA0200004;
constexpr uint64_t counterWord = 0xA0200078;

TEST(AdcControlTest, EnablesModulesByTheWayOfStarting) {
    std::vector<bool> tooMany(40, true);
    tooMany[1] = false;
    const std::tuple<std::vector<bool>, bool, bool, uint32_t, uint32_t, uint32_t> cases[] = {
        {{true, false, true}, false, true, 1, 0x0005, 0},
        {{true, false, true}, false, false, 1, 0x0500, 0},
        {{true, false, true}, true, true, 0, 0x0005, 0x05010000},
        {tooMany, true, true, 0, 0x00FD, 0xFD010000},
    };
    for (const auto& [enabled, simulation, standalone, enable, trigger, counters] : cases) {
        const auto access = std::make_shared<FakeAccess>();
        access->setWord(counterWord, 0xFF030000);  // left over from somebody else
        AdcControl adc(access);
        EXPECT_TRUE(access->stores.empty());
        adc.enableAdcs(enabled, simulation, standalone);
        EXPECT_EQ(access->word(enableWord), enable);
        EXPECT_EQ(access->word(triggerWord), trigger);
        EXPECT_EQ(access->word(counterWord), counters);
        // Off first; the converters start after the mask is set.
        EXPECT_EQ(access->stores.front(), (FakeAccess::Store{enableWord, 0}));
        if (!simulation) {
            EXPECT_EQ(access->stores.back(), (FakeAccess::Store{enableWord, 1}));
        }
        // Where one field can't be reached the others are cleared all the same.
        access->beforeRead = [](uint64_t address) {
            if (address == enableWord) {
                throw std::runtime_error("no enable");
            }
        };
        EXPECT_EQ(kestrixtest::failureOf([&] { adc.disableAdcs(); }), "no enable");
        EXPECT_EQ(access->word(triggerWord), 0u);
        EXPECT_EQ(access->word(counterWord), 0u);
        access->beforeRead = nullptr;
        adc.disableAdcs();
        EXPECT_EQ(access->word(enableWord), 0u);
    }
}

}  // namespace
