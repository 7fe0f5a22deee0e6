#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/PllControlRegister.h"
#include "shared/libraries/kestrix/src/registers/Tmp100Register.h"
#include "tests/registers/FakeAccess.h"
#include "tests/registers/LogCapture.h"

namespace {

using namespace Harvane::Shared::Kestrix;
using kestrixtest::FakeAccess;
using kestrixtest::LogCapture;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr uint64_t pllWord = 0xB0000000;

TEST(PllControl, staysPatientForFiveWaitsOnEachSide) {
    LogCapture log;
    const auto access = std::make_shared<FakeAccess>();
    PllControlRegister pll(access, pllWord, true);
    access->setWord(pllWord, 0xFFFFFF11);  // nobody ever clears the request
    const auto start = Clock::now();
    pll.setClock(ClockOption::Clock10MHz);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(access->stores, (std::vector<FakeAccess::Store>{{pllWord, 0xFFFFFF13}}));
    Strings expected;
    for (int side = 0; side < 2; ++side) {
        for (int remaining = 4; remaining >= 0; --remaining) {
            expected.push_back("4 Waiting for idle PLL (Remaining retry: " + std::to_string(remaining) + ")");
        }
    }
    expected.push_back("2 PLL set: control: 3, pll0LockStatus: true, pll1LockStatus: true");
    EXPECT_EQ(log.lines(), expected);
}

TEST(PllControl, idlePllIsNotWaitedForAndItsLocksAreOnlyReadForTheLog) {
    LogCapture log(3);
    const auto access = std::make_shared<FakeAccess>();
    PllControlRegister pll(access, pllWord, true);
    access->setWord(pllWord, 0xFFFFFFF6);
    access->beforeRead = [&](uint64_t address) { access->setWord(address, access->word(address) & ~1u); };
    pll.setClock(ClockOption::Clock15MHz);
    EXPECT_EQ(access->stores, (std::vector<FakeAccess::Store>{{pllWord, 0xFFFFFFF1}}));
    // Busy test, read-modify-write, busy test.
    EXPECT_EQ(access->accesses.size(), 4u);
    EXPECT_EQ(log.lines(), Strings{});
}

TEST(PllControl, clockIsTheSelectionThatBothHaveLockedTo) {
    const auto access = std::make_shared<FakeAccess>();
    PllControlRegister pll(access, pllWord, true);
    access->setWord(pllWord, 0x110);
    EXPECT_EQ(pll.lockedClock(), ClockOption::Clock15MHz);
    access->setWord(pllWord, 0x114);  // a selection that is no clock
    EXPECT_EQ(pll.lockedClock(), std::nullopt);
    // Idle before they have locked, one after the other.
    access->setWord(pllWord, 0x002);
    int reads = 0;
    access->beforeRead = [&](uint64_t) { access->setWord(pllWord, ++reads < 4 ? 0x002 : reads < 6 ? 0x012 : 0x112); };
    EXPECT_EQ(pll.lockedClock(), ClockOption::Clock10MHz);
    access->beforeRead = nullptr;
    access->setWord(pllWord, 0x012);
    EXPECT_EQ(pll.lockedClock(), std::nullopt);
}

TEST(Eeprom, takesTenMillisecondsForEachByte) {
    const auto access = std::make_shared<FakeAccess>();
    EepromRegister eeprom(access, 0x50);
    const auto start = Clock::now();
    eeprom.Key.write(0xFAF320);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_EQ(access->bytes(0x50, 5), (std::vector<unsigned char>{0, 0xFA, 0xF3, 0x20, 0}));
}

TEST(Tmp100, temperatureOfTheSensorsWord) {
    // word: first byte on the bus high.
    const std::pair<unsigned int, float> cases[] = {
        {0x0000, 0.0f},   {0x0010, 0.0625f},    {0x7FF0, 127.9375f}, {0xFF00, -1.0f}, {0xFFF0, -0.0625f},
        {0xC900, -55.0f}, {0x8010, -127.9375f}, {0x8000, 128.0f},  // beyond the sensor; stays as it is
    };
    const auto access = std::make_shared<FakeAccess>();
    Tmp100Register sensor(access, 0x48, true, true);
    for (const auto& [word, celsius] : cases) {
        access->setCell(0x48, {static_cast<unsigned char>(word >> 8), static_cast<unsigned char>(word)});
        EXPECT_EQ(sensor.getTemperature(), celsius) << std::hex << word;
    }
}

TEST(KestrixLogger, takesItsLevelFromTheHostOnceWithTheFirstMessage) {
    LogCapture log(0);
    log.setHostLevel(4);
    int evaluations = 0;
    const auto counted = [&evaluations] { return ++evaluations; };
    KESTRIX_LOG(4, "first {}", counted());  // formatted, since nothing is known yet, but below the host's level
    EXPECT_EQ(KestrixLogger::get_logger().getLevel(), 5);
    KESTRIX_LOG(4, "second {}", counted());
    EXPECT_EQ(evaluations, 1);
    KESTRIX_LOG(5, "third {}", counted());
    KESTRIX_LOG(6, "fourth");
    EXPECT_EQ(log.lines(), (Strings{"5 third 2", "6 fourth"}));

    KestrixLogger::get_logger().setLevel(0);
    log.setHostLevel(0);
    KESTRIX_LOG(1, "fifth");
    log.setHostLevel(6);
    EXPECT_EQ(KestrixLogger::get_logger().getLevel(), 1);
    EXPECT_EQ(log.lines().back(), "1 fifth");
}

}  // namespace
