#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

constexpr uint64_t timing = 0xA3000000;
constexpr uint64_t irig = 0xA3800000;
constexpr double late = 375.0;

struct Record {
    uint32_t number = 0;
    uint32_t phase = 0;
    uint32_t frequency = 0;
    bool lost() const { return (frequency >> 31) != 0; }
    double phi() const {
        const double magnitude = phase & 0xFFFFFF;
        return (phase >> 31) != 0 ? magnitude : -magnitude;
    }
    double error() const { return static_cast<double>(frequency & 0x1FFFFFFF) - 150e6; }
};

// An instrument with quiet references, told to follow one of them.
struct TimingRig : Rig {
    explicit TimingRig(Scenario scenario = quiet()) : Rig(std::move(scenario)) { store(timing + 0x24, 3); }

    static Scenario quiet() {
        Scenario scenario;
        scenario.realtimeAtStart = 1795000000.25;
        for (ReferenceScenario* each : {&scenario.irig, &scenario.pps, &scenario.ptpPulse}) {
            each->jitterNs = 0.0;
        }
        return scenario;
    }
    void follow(uint32_t selection, bool seenLate = false) {
        store(timing, selection);
        store(timing + 0x2C, 1u << 3);
        store(timing + 0x38, seenLate ? 0 : 1);
    }
    void setWord(uint16_t word) {
        const uint8_t high[2] = {0x11, static_cast<uint8_t>(word >> 2)};
        const uint8_t low[2] = {0x10, static_cast<uint8_t>(0xA8 | (word & 3))};
        instrument.i2cWrite(0x58, high, 2);
        instrument.i2cWrite(0x58, low, 2);
    }
    // The next record within `seconds`; none has number 0.
    Record next(double seconds = 3.0) {
        for (const double end = now + seconds; now < end; now += 0.01) {
            uint8_t bytes[12];
            result = instrument.timingRead(bytes, sizeof bytes);
            if (result == 12) {
                Record record;
                std::memcpy(&record, bytes, sizeof record);
                return record;
            }
        }
        return {};
    }
    void resync() { storeBits(timing + 0x14, 1u << 29, 1u << 29); }
    bool resyncing() const { return (word(timing + 0x14) >> 29 & 1) != 0; }
};

TEST(Oscillator, frequencyFollowsTheControlWordByItsOwnCurve) {
    const std::tuple<uint16_t, OscillatorScenario, double, double> cases[] = {{506, {}, 0.0, 0.0},
                                                                              {506, {}, 12.0, 12.0},
                                                                              {0, {}, 0.0, 289.280},
                                                                              {1023, {}, 0.0, -60.965},
                                                                              {573, {}, 12.0, 0.0},
                                                                              {0, {.slope = 0.5}, 0.0, 144.640},
                                                                              {506, {.bendPpm = 3.0}, 0.0, 0.0},
                                                                              {1018, {.bendPpm = 3.0}, 0.0, -57.23}};
    for (const auto& [word, curve, errorPpm, ppm] : cases) {
        Scenario scenario = TimingRig::quiet();
        scenario.oscillator = curve;
        scenario.oscillatorErrorPpm = errorPpm;
        TimingRig rig(scenario);
        rig.follow(1);
        rig.setWord(word);
        rig.next();
        // Counts between two pulses of the reference are the frequency.
        EXPECT_NEAR(ppm, rig.next().error() / 150.0, 0.1) << word;
        EXPECT_NEAR(ppm, rig.instrument.timingState().oscillatorPpm, 0.1) << word;
    }
}

TEST(Oscillator, driftsWithTimeAndTemperature) {
    Scenario scenario = TimingRig::quiet();
    scenario.oscillator.driftPpmPerHour = 3.6;
    scenario.oscillator.temperaturePpm = 2.0;
    scenario.oscillator.temperaturePeriodSeconds = 400.0;
    TimingRig rig(scenario);
    for (const auto& [after, ppm] : {std::pair{100.0, 0.1 + 2.0}, {200.0, 0.2}, {300.0, 0.3 - 2.0}, {1000.0, 1.0}}) {
        rig.now = 1000.0 + after;
        EXPECT_NEAR(ppm, rig.instrument.timingState().oscillatorPpm, 0.05) << after;
    }
}

// Everything that the FPGA counts goes by the one oscillator.
TEST(Oscillator, drivesConvertersAndClockCounterAlike) {
    Scenario scenario = Scenario::counters(1);
    scenario.oscillatorErrorPpm = 200.0;
    TimingRig rig(scenario);
    rig.store(timing, 0x100);
    rig.raw(0, 1500);
    rig.transfer(0, Stream::Raw, 40000);
    rig.store(0xA0200004, 0x100);
    rig.storeBits(0xA0200000, 1, 1);
    rig.store(timing + 0x18, 1);
    rig.now += 10.0;
    rig.setWord(0);  // + 289.28 ppm from here on
    rig.now += 10.0;
    const double counted = rig.word(timing + 0x20);
    EXPECT_NEAR(20.0 * 15e6 * (1.0 + 200e-6) + 10.0 * 15e6 * 289.28e-6, counted, 20.0);
    size_t samples = 0;
    for (size_t got = 1; got != 0; samples += got) {
        got = rig.read<int16_t>(0, Stream::Raw, 40000).size();
    }
    EXPECT_EQ(static_cast<size_t>(counted / 1500.0) / 20000 * 20000, samples);
}

TEST(Detector, measuresPhaseAndFrequencyOfThePulse) {
    for (const bool seenLate : {false, true}) {
        Scenario scenario = TimingRig::quiet();
        scenario.oscillatorErrorPpm = 10.0;
        TimingRig rig(scenario);
        rig.follow(1, seenLate);
        const Record first = rig.next();
        const Record second = rig.next();
        EXPECT_NEAR(1500.0, first.error(), 1.0);
        EXPECT_NEAR(1500.0, second.error(), 1.0);
        // A fast oscillator's second comes earlier with each pulse.
        EXPECT_NEAR(1500.0, std::remainder(second.phi() - first.phi(), 150e6), 2.0);
        // A phase is saturated in the record, and has 28 bits in the register.
        EXPECT_EQ(std::abs(second.phi()) >= 0xFFFFFF, (rig.word(timing + 0x10) & 0xFFFFFFF) > 0xFFFFFF);
        rig.resync();
        EXPECT_TRUE(rig.resyncing());
        EXPECT_EQ(0.0, rig.next().phi());
        EXPECT_FALSE(rig.resyncing());
        // The detected edge is what the internal second is set to.
        EXPECT_NEAR(seenLate ? -late / 150e6 : 0.0, rig.instrument.timingState().phaseSeconds, 2e-8);
        EXPECT_NEAR(1500.0, rig.next().phi(), 1.0);
    }
}

TEST(Detector, tellsOfALossEachSecond) {
    Scenario scenario = TimingRig::quiet();
    scenario.pps.outages = {{10.0, 20.0}};
    TimingRig rig(scenario);
    rig.follow(1);
    int measured = 0;
    int lost = 0;
    while (rig.now < 1030.0) {
        const Record record = rig.next();
        ASSERT_NE(0u, record.number);
        (record.lost() ? lost : measured)++;
        if (record.lost()) {
            EXPECT_EQ(0u, record.phase);
            EXPECT_EQ(1u << 31, record.frequency);
        }
        EXPECT_EQ(record.lost(), (rig.word(timing + 0x14) >> 31) != 0);
    }
    // Lost from 1.5 s behind the last pulse to the first one; which arms the detector again, as at the start.
    EXPECT_NEAR(9, lost, 1);
    EXPECT_NEAR(29 - 10 - 1, measured, 1);
}

TEST(Detector, needsItsInterruptsItsPulseAndItsRelease) {
    TimingRig rig;
    rig.follow(5);
    EXPECT_FALSE(rig.next().lost());
    // silent: no record at all.
    const std::tuple<const char*, uint64_t, uint32_t, uint32_t, bool> rows[] = {
        {"phase interrupt masked", timing + 0x24, 2, 3, true},
        {"frequency interrupt masked", timing + 0x24, 1, 3, true},
        {"detector in reset", timing + 0x0C, 1, 0, true},
        {"pulse not inverted", timing + 0x2C, 0, 1u << 3, false},
        {"own timing", timing, 0x105, 5, false},
        {"no input there", timing, 4, 5, false}};
    for (const auto& [text, word, off, on, silent] : rows) {
        rig.store(word, off);
        rig.next(0.1);
        const Record record = rig.next(4.0);
        EXPECT_EQ(silent, record.number == 0) << text;
        EXPECT_EQ(!silent, record.lost()) << text;
        rig.store(word, on);
        rig.next();  // may be one of before
        EXPECT_FALSE(rig.next(4.0).lost()) << text;
    }
}

TEST(Detector, keepsOnlyTheNewestRecord) {
    TimingRig rig;
    rig.follow(1);
    const Record first = rig.next();
    rig.now += 5.0;
    EXPECT_EQ(first.number + 5, rig.next().number);
    EXPECT_EQ(4u, rig.instrument.timingState().recordsReplaced);
    EXPECT_EQ(0u, rig.next(0.3).number);
}

TEST(Detector, anOwnRequestForAResyncIsDoneAtOnceAndALostOneStays) {
    TimingRig rig;
    rig.store(timing, 0x100);
    rig.resync();
    EXPECT_FALSE(rig.resyncing());
    rig.follow(4);
    rig.resync();
    rig.now += 10.0;
    EXPECT_TRUE(rig.resyncing());
    rig.follow(1);
    rig.instrument.inject({.kind = FaultKind::SyncHeld, .times = 2});
    rig.now += 2.5;
    EXPECT_TRUE(rig.resyncing());
    rig.now += 1.0;
    EXPECT_FALSE(rig.resyncing());
}

TEST(Detector, faultsOfItsNode) {
    TimingRig rig;
    rig.follow(1);
    rig.next();
    uint8_t bytes[12];
    rig.instrument.inject({.kind = FaultKind::TimingOpen});
    EXPECT_EQ(-ENOENT, rig.instrument.timingOpen());
    EXPECT_EQ(0, rig.instrument.timingOpen());
    rig.instrument.inject({.kind = FaultKind::TimingRead, .code = ENODEV});
    EXPECT_TRUE(rig.instrument.timingReady());
    EXPECT_EQ(-ENODEV, rig.instrument.timingRead(bytes, sizeof bytes));
    rig.now += 1.0;
    rig.instrument.inject({.kind = FaultKind::TimingShortRead});
    EXPECT_EQ(8, rig.instrument.timingRead(bytes, sizeof bytes));
    rig.instrument.inject({.kind = FaultKind::TimingSilent, .times = 3});
    EXPECT_EQ(0u, rig.next(2.5).number);
    EXPECT_NE(0u, rig.next(2.5).number);
}

TEST(Reference, stepsAndSpikes) {
    Scenario scenario = TimingRig::quiet();
    scenario.pps.steps = {{5.0, 100.0}};
    scenario.pps.spikes = {{9.5, -40.0}};
    TimingRig rig(scenario);
    rig.follow(1);
    rig.next();
    rig.resync();
    for (const double phi : {0.0, 0.0, 0.0, 15000.0, 15000.0, 15000.0, 15000.0, 9000.0, 15000.0}) {
        EXPECT_NEAR(phi, rig.next().phi(), 1.0) << rig.now;
    }
}

TEST(IrigDecoder, givesTheTimeTwoSecondsBehindTheSignal) {
    Scenario scenario = TimingRig::quiet();
    scenario.realtimeAtStart = 1795356334.25;  // 22 November 2026, 14:05:34
    scenario.irig.outages = {{0.0, 1.0}};
    TimingRig rig(scenario);
    rig.follow(0);
    rig.now += 2.0;
    EXPECT_EQ(0u, rig.word(irig + 0x20) & 0x18) << "not told what comes in";
    rig.store(irig, 0x13);
    EXPECT_EQ(0u, rig.word(irig + 0x20) & 0x18);
    rig.now = 1004.76;
    EXPECT_EQ(0x18u, rig.word(irig + 0x20) & 0x18);
    EXPECT_NEAR(10, rig.word(irig + 0x20) >> 16, 1);
    EXPECT_EQ(0x326502B9u, rig.word(irig + 0x24)) << "day 326, 14:05:39";
    EXPECT_EQ(0x26u, rig.word(irig + 0x28));
    rig.now += 1.0;
    EXPECT_EQ(0x326502C0u, rig.word(irig + 0x24));
    rig.store(irig, 0x10);
    EXPECT_EQ(0u, rig.word(irig + 0x20) & 0x18);
}

}  // namespace
