#include <gtest/gtest.h>

#include <algorithm>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

Scenario quiet() {
    Scenario scenario = Scenario::counters(2);
    scenario.supplyOn = true;
    return scenario;
}

TEST(Registers, aStoreReachesOnlyTheBitsThatTheHardwareLetsWrite) {
    const std::tuple<const char*, uint64_t, uint32_t, uint32_t> cases[] = {
        {"coefficient", 0xA0000008, 0xFFFFFC58, 0x07FFFC58},
        {"centre of module 7", 0xA0070080, 0xFFFFFFFF, 0x07FFFFFF},
        {"hole in module", 0xA0000084, 0xFFFFFFFF, 0},
        {"ratio high", 0xA0000104, 0xFF, 0x3F},
        {"half-bands", 0xA0000108, 0xFF, 0x1F},
        {"trigger word", 0xA000012C, 0xFFFFFFFF, 0xC003FFFF},
        {"state of modules is hardware", 0xA0200004, 0xFFFF0500, 0x00000500},
        {"timing control", 0xA3000000, 0xFFFFFFFF, 0x00033137},
        {"resync in own timing, which is a loss", 0xA3000014, 0x20000000, 0x80000000},
        {"IRIG control", 0xA3800000, 0xFFFFFFFF, 0xDF},
        {"IRIG status is hardware", 0xA3800020, 0xFFFFFFFF, 0},
        {"version is hardware", 0xA6000000, 0, 0x00010000},
        {"supply interval", 0xA6000008, 85, 21}};
    Rig rig(quiet());
    for (const auto& [name, address, stored, reads] : cases) {
        rig.store(address, stored);
        EXPECT_EQ(reads, rig.word(address)) << name;
    }
}

TEST(Registers, aBitThatTheHardwareMovedMeanwhileWins) {
    Rig rig(quiet());
    rig.store(0xA0000120, 1);
    const uint32_t snapshot = rig.word(0xA0000120);  // the clear is not reported yet
    ASSERT_EQ(1u, snapshot);
    rig.now += 0.01;
    rig.instrument.storeWord(0xA0000120, snapshot, snapshot);  // an access that changes nothing
    EXPECT_EQ(3u, rig.word(0xA0000120));
}

TEST(Registers, aPageHoldsItsBlockAndNothingElse) {
    Rig rig(quiet());
    rig.store(0xA000010C, 15000);
    rig.store(0xA001010C, 7);
    std::vector<uint32_t> page(1024, 0xDEAD);
    rig.instrument.readPage(0xA0000000, page.data(), page.size());
    EXPECT_EQ(15000u, page[0x10C / 4]);
    EXPECT_EQ(1, page.size() - std::count(page.begin(), page.end(), 0u));
    // A page of 64 KiB ends where the next module begins.
    std::vector<uint32_t> large(16384, 0xDEAD);
    rig.instrument.readPage(0xA0010000, large.data(), large.size());
    EXPECT_EQ(7u, large[0x10C / 4]);
    EXPECT_EQ(1, large.size() - std::count(large.begin(), large.end(), 0u));
}

TEST(Registers, pllIsBusyThenLocksIfTheOscillatorFits) {
    Rig rig(quiet());
    EXPECT_EQ(0x110u, rig.word(0xB0000000));
    rig.storeBits(0xB0000000, 7, 3);
    EXPECT_EQ(3u, rig.word(0xB0000000));
    rig.now += 0.021;
    EXPECT_EQ(2u, rig.word(0xB0000000)) << "10 MHz asked for, 15 MHz come in";
    rig.instrument.runCommand("/opt/harvane/scripts/vcxo_control.sh set_clock 10");
    EXPECT_EQ(0x112u, rig.word(0xB0000000));

    rig.instrument.inject({.kind = FaultKind::PllBusy, .times = -1});
    rig.storeBits(0xB0000000, 7, 1);
    rig.now += 10.0;
    EXPECT_EQ(1u, rig.word(0xB0000000));
    rig.instrument.clearFaults();
    EXPECT_EQ(0u, rig.word(0xB0000000) & 1);
}

TEST(Registers, clockCounterRunsFromTheStartToTheStop) {
    Rig rig(quiet());
    constexpr uint64_t timing = 0xA3000000;
    rig.now += 0.25;
    rig.store(timing, 0x100);  // own timing: a start takes effect at once
    rig.store(timing + 0x1C, 1);
    rig.store(timing + 0x1C, 0);
    rig.now += 1.0;
    EXPECT_EQ(0u, rig.word(timing + 0x20));
    rig.store(timing + 0x18, 1);
    rig.now += 0.5;
    EXPECT_NEAR(7500000.0, rig.word(timing + 0x20), 1.0);
    rig.now += 286.0;  // 2^32 ticks are 286.33 s
    EXPECT_NEAR(286.5 * 15e6 - 4294967296.0, rig.word(timing + 0x20), 1.0);
    rig.store(timing + 0x18, 0);
    const uint32_t stopped = rig.word(timing + 0x20);
    rig.now += 1.0;
    EXPECT_EQ(stopped, rig.word(timing + 0x20));
    rig.store(timing + 0x1C, 1);
    EXPECT_EQ(0u, rig.word(timing + 0x20));
    rig.store(timing + 0x1C, 0);
    // Another clock goes on from what has been counted.
    rig.store(timing + 0x18, 1);
    rig.now += 1.0;
    rig.instrument.runCommand("/opt/harvane/scripts/vcxo_control.sh set_clock 10");
    rig.now += 1.0;
    rig.storeBits(0xB0000000, 7, 3);
    rig.now += 1.0;
    EXPECT_NEAR(25e6, rig.word(timing + 0x20), 1.0);
    rig.store(timing + 0x18, 0);
    // Following a reference the start waits for the next pulse of the internal second.
    rig.store(timing, 0);
    rig.now += rig.instrument.timingState().nextSecond - 0.25;
    rig.store(timing + 0x18, 1);
    rig.now += 0.2;
    EXPECT_EQ(0u, rig.word(timing + 0x20));
    rig.now += 0.1;
    EXPECT_NEAR(0.05 * 10e6, rig.word(timing + 0x20), 1.0);
}

TEST(Registers, supplyBootsTheFirmwareOfEachSlot) {
    Rig rig(Scenario::counters(2));
    rig.select(1);
    EXPECT_TRUE(rig.ask({0xA7}).empty());
    rig.store(0xA6000010, 1);
    rig.store(0xA6000010, 3);
    EXPECT_EQ(2u, rig.instrument.supplySwitches());
    rig.now += 0.140;
    rig.instrument.uartWrite(reinterpret_cast<const uint8_t*>("\xA5\x01\xA7\x5A"), 4);
    rig.now += 0.1;
    uint8_t bytes[8];
    EXPECT_EQ(0, rig.instrument.uartRead(bytes, sizeof bytes, 0)) << "still booting";
    EXPECT_EQ((std::vector<uint8_t>{0, 2}), rig.ask({0xA7}));
    rig.store(0xA6000010, 0);
    EXPECT_TRUE(rig.ask({0xA7}).empty());
}

TEST(Registers, aFaultWaitsForItsTime) {
    Rig rig(quiet());
    rig.instrument.inject({.kind = FaultKind::MemOpen, .atSeconds = 5.0, .times = -1});
    EXPECT_EQ(0, rig.instrument.memOpen());
    rig.now += 5.0;
    EXPECT_EQ(-ENOENT, rig.instrument.memOpen());
}

}  // namespace
