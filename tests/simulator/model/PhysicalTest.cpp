#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <numbers>
#include <thread>

#include "simulator/model/ScenarioJson.h"
#include "simulator/model/Signal.h"
#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

using Bytes = std::vector<uint8_t>;
constexpr double pi = std::numbers::pi;
constexpr uint64_t ratio100k = 0x3FFFFFFFFF & (uint64_t(0.171875 * 274877906944.0));  // 100 kHz of 15 MHz, 5 stages

HalfBand usualFilter() {
    HalfBand filter;
    std::copy(halfBandWords.begin(), halfBandWords.end(), filter.coefficients.begin());
    return filter;
}

Waveform physical(WaveformKind kind, double amplitude, double offset = 0.0, double hertz = 50.0, double phase = 0.0) {
    return {kind, hertz, amplitude, offset, phase, {}, WaveformUnit::Physical};
}

template <typename Sample>
std::vector<Sample> samplesOf(const SignalSource& source, const StreamFormat& format, uint64_t first, size_t count) {
    std::vector<Sample> samples(count);
    Signal(source, format).generate(first, count, samples.data());
    return samples;
}

StreamFormat rawAt(uint32_t decimation) {
    return StreamFormat::raw(15e6, decimation, 0xFFFFFFFF);
}

StreamFormat filteredAt100k() {
    return StreamFormat::lowPassed(15e6, ratio100k, 5, usualFilter());
}

// ---- From a physical value to counts ----

struct Transfer {
    const char* name;
    double range;
    float scale;
    float offset;
    double value;
    int16_t narrow;
    int32_t wide;
};

class TransferTest : public testing::TestWithParam<Transfer> {};

TEST_P(TransferTest, countsAreThoseOfTheDataSheet) {
    const Transfer& p = GetParam();
    SignalSource source;
    source.waveform = physical(WaveformKind::Constant, 0.0, p.value);
    source.frontEnd = FrontEnd::calibrated(-p.range, p.range, p.scale, p.offset);
    EXPECT_EQ(p.narrow, samplesOf<int16_t>(source, rawAt(15), 1000, 1)[0]);
    EXPECT_EQ(p.wide, samplesOf<int32_t>(source, filteredAt100k(), 1000, 1)[0]);
}

INSTANTIATE_TEST_SUITE_P(Worked, TransferTest,
                         testing::Values(Transfer{"voltage", 5.0, 1.000213F, -1.75F, 3.2, 20979, 1374848434},
                                         Transfer{"bridge", 2.0, 0.9987F, 3.1F, 0.7531, 12304, 806358944},
                                         Transfer{"ideal", 10.0, 1.0F, 0.0F, 5.0, 16384, 1073741824},
                                         Transfer{"offsetOnly", 10.0, 1.0F, 500.0F, 0.0, -1638, -107374182},
                                         Transfer{"fullScaleClips", 10.0, 1.0F, 0.0F, 10.0, 32767, 2147483647},
                                         Transfer{"tooHigh", 10.0, 0.9998F, 0.0F, 1e6, 32767, 2147483647},
                                         Transfer{"tooLow", 10.0, 0.9998F, 0.0F, -1e6, -32768, -2147483647 - 1}),
                         [](const auto& info) { return info.param.name; });

// ---- Filters of the amplifier ----

// Complex amplitude of a sine in whole periods of samples.
template <typename Sample>
std::complex<double> amplitudeOf(const std::vector<Sample>& samples, double cyclesPerSample) {
    std::complex<double> sum;
    for (size_t i = 0; i < samples.size(); ++i) {
        sum += std::polar(static_cast<double>(samples[i]), -2.0 * pi * std::fmod(cyclesPerSample * i, 1.0));
    }
    return sum * 2.0 / static_cast<double>(samples.size()) * std::complex<double>(0.0, 1.0);
}

struct Corner {
    const char* name;
    double highPass;
    double lowPass;
    double hertz;
    double gain;
    double degrees;
};

class Corners : public testing::TestWithParam<Corner> {};

TEST_P(Corners, sineIsWeakenedAndTurned) {
    const Corner& p = GetParam();
    SignalSource source;
    source.waveform = physical(WaveformKind::Sine, 20000.0, 3000.0, p.hertz);
    source.frontEnd.highPassHz = p.highPass;
    source.frontEnd.lowPassHz = p.lowPass;
    const double mean = p.highPass > 0.0 ? 0.0 : 3000.0;
    const auto raw = samplesOf<int16_t>(source, rawAt(15), 0, 1000000);
    const std::complex<double> rawAmplitude = amplitudeOf(raw, p.hertz / 1e6);
    EXPECT_NEAR(p.gain, std::abs(rawAmplitude) / 20000.0, 2e-4);
    EXPECT_NEAR(p.degrees, std::arg(rawAmplitude) * 180.0 / pi, p.gain < 0.02 ? 0.5 : 0.05);
    double sum = 0.0;
    for (const int16_t sample : raw) {
        sum += sample;
    }
    EXPECT_NEAR(mean, sum / 1e6, 0.1);
    if (p.hertz < 40000.0) {
        const auto filtered = samplesOf<int32_t>(source, filteredAt100k(), 1000, 100000);
        EXPECT_NEAR(p.gain, std::abs(amplitudeOf(filtered, p.hertz / 1e5)) / 20000.0 / 65536.0, 2e-4);
    }
}

INSTANTIATE_TEST_SUITE_P(Settings, Corners,
                         testing::Values(Corner{"direct", 0.0, 0.0, 1000.0, 1.0, 0.0},
                                         Corner{"highPassAtItsCorner", 1.0, 0.0, 1.0, 0.70711, 45.0},
                                         Corner{"highPassBelow", 10.0, 0.0, 1.0, 0.09950, 84.289},
                                         Corner{"highPassFarAbove", 1.0, 0.0, 100.0, 0.99995, 0.573},
                                         Corner{"lowPassAtItsCorner", 0.0, 10000.0, 10000.0, 0.70711, -90.0},
                                         Corner{"lowPassBelow", 0.0, 10000.0, 1000.0, 0.99995, -8.130},
                                         Corner{"lowPassTenTimesAbove", 0.0, 10000.0, 100000.0, 0.0100, -171.870},
                                         Corner{"lowPassOctaveAbove", 0.0, 10000.0, 20000.0, 0.24254, -136.686},
                                         Corner{"both", 1000.0, 1000.0, 1000.0, 0.5, -45.0}),
                         [](const auto& info) { return info.param.name; });

struct Edges {
    const char* name;
    WaveformKind kind;
    double highPass;
    double lowPass;
};

class EdgesTest : public testing::TestWithParam<Edges> {};

// The circuit computed step by step, until it has settled, against the samples.
TEST_P(EdgesTest, shapeIsThatOfTheCircuit) {
    const Edges& p = GetParam();
    constexpr double hertz = 1000.0;
    constexpr size_t perPeriod = 150;  // samples
    constexpr int steps = 100;         // of the integration in a sample
    SignalSource source;
    source.waveform = physical(p.kind, 16000.0, 500.0, hertz);
    source.frontEnd.highPassHz = p.highPass;
    source.frontEnd.lowPassHz = p.lowPass;
    const auto samples = samplesOf<int16_t>(source, rawAt(100), 0, perPeriod);

    const double w = 2.0 * pi * p.lowPass;
    const double a = 2.0 * pi * p.highPass;
    const double dt = 1.0 / (hertz * perPeriod * steps);
    double y = 500.0;  // behind the low-pass
    double slope = 0.0;
    double blocked = 500.0;  // on the high-pass's capacitor
    for (int period = 0; period < 20; ++period) {
        for (size_t i = 0; i < perPeriod * steps; ++i) {
            const double place = (static_cast<double>(i) + 0.5) / (perPeriod * steps);
            const double x = 500.0 + (p.kind == WaveformKind::Square ? (place < 0.5 ? 16000.0 : -16000.0)
                                                                     : 16000.0 * (2.0 * place - 1.0));
            if (period == 19 && i % steps == 0 && (p.lowPass > 0.0 || i != 0)) {
                const size_t n = i / steps;
                const bool onEdge = p.lowPass <= 0.0 && p.kind == WaveformKind::Square && n == perPeriod / 2;
                const double now = p.lowPass > 0.0 ? y : x;
                if (!onEdge) {
                    EXPECT_NEAR(now - (p.highPass > 0.0 ? blocked : 0.0), samples[n], 3.0) << n;
                }
            }
            if (p.lowPass > 0.0) {
                // Midpoint rule.
                const double middleSlope = slope + 0.5 * dt * (w * w * (x - y) - std::numbers::sqrt2 * w * slope);
                const double middle = y + 0.5 * dt * slope;
                slope += dt * (w * w * (x - middle) - std::numbers::sqrt2 * w * middleSlope);
                const double before = y;
                y += dt * middleSlope;
                blocked += (0.5 * (before + y) - blocked) * (1.0 - std::exp(-a * dt));
            } else {
                blocked += (x - blocked) * (1.0 - std::exp(-a * dt));
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Settings, EdgesTest,
                         testing::Values(Edges{"squareHighPass", WaveformKind::Square, 300.0, 0.0},
                                         Edges{"squareLowPass", WaveformKind::Square, 0.0, 4000.0},
                                         Edges{"squareBoth", WaveformKind::Square, 300.0, 4000.0},
                                         Edges{"rampHighPass", WaveformKind::Ramp, 300.0, 0.0},
                                         Edges{"rampLowPass", WaveformKind::Ramp, 0.0, 2000.0},
                                         Edges{"rampBoth", WaveformKind::Ramp, 300.0, 4000.0}),
                         [](const auto& info) { return info.param.name; });

TEST(Physical, edgesRingAsTheSlowerFilterWants) {
    SignalSource source;
    source.waveform = physical(WaveformKind::Square, 10000.0, 0.0, 50.0);
    const auto peak = [&] {
        const auto samples = samplesOf<int32_t>(source, filteredAt100k(), 1000, 2000);
        return *std::max_element(samples.begin(), samples.end()) / 65536.0;
    };
    // A second order low-pass of this kind overshoots a step by 4.32 %; the filter chain alone by some 9 %.
    source.frontEnd.lowPassHz = 1000.0;
    EXPECT_NEAR(10000.0 * (1.0 + 2.0 * 0.0432), peak(), 5.0);
    source.frontEnd.lowPassHz = 5e6;
    const double steep = peak();
    EXPECT_GT(steep, 11000.0);
    source.frontEnd.lowPassHz = 0.0;
    EXPECT_NEAR(steep, peak(), 1.0);
}

TEST(Physical, noiseLosesWhatTheLowPassStops) {
    SignalSource source;
    source.waveform = physical(WaveformKind::Noise, 20000.0);
    source.seed = 7;
    const auto rms = [&](double corner) {
        source.frontEnd.lowPassHz = corner;
        double sum = 0.0;
        for (const int16_t sample : samplesOf<int16_t>(source, rawAt(1), 0, 200000)) {
            sum += static_cast<double>(sample) * sample;
        }
        return std::sqrt(sum / 200000.0);
    };
    EXPECT_NEAR(20000.0 / std::sqrt(3.0), rms(0.0), 100.0);
    EXPECT_NEAR(rms(0.0) * std::sqrt(1.1107e5 / 7.5e6), rms(1e5), 20.0);
}

TEST(Physical, fileIsScaledAndShifted) {
    SignalSource source;
    source.waveform = physical(WaveformKind::Wav, 5.0, 1.0);
    source.recording = std::make_shared<const std::vector<int16_t>>(std::vector<int16_t>{0, 16384, -32768});
    source.frontEnd = FrontEnd::calibrated(-10.0, 10.0, 1.0, 0.0);
    EXPECT_EQ((std::vector<int16_t>{3277, 11469, -13107, 3277}), samplesOf<int16_t>(source, rawAt(1), 0, 4));
    EXPECT_NEAR(-13107.2 * 65536.0, samplesOf<int32_t>(source, filteredAt100k(), 2, 1)[0], 1.0);
    source.waveform.unit = WaveformUnit::Counts;
    EXPECT_EQ((std::vector<int16_t>{0, 16384, -32768, 0}), samplesOf<int16_t>(source, rawAt(1), 0, 4));
    EXPECT_EQ((std::vector<int32_t>{0, 16384 * 65536}), samplesOf<int32_t>(source, filteredAt100k(), 0, 2));
}

// ---- The whole amplifier, driven by its frames ----

class Bench : public testing::Test {
protected:
    void make(std::vector<ModuleScenario> modules) {
        Scenario scenario;
        scenario.supplyOn = true;
        scenario.modules = std::move(modules);
        rig = std::make_unique<Rig>(scenario);
        for (const ModuleScenario& module : scenario.modules) {
            const int m = module.slot;
            rig->raw(m, 1500);
            rig->filtered(m, 5, ratio100k);
            rig->open(m, Stream::Raw, 64);
            rig->open(m, Stream::Filtered, 800);
            rig->enable(m, true, true);
            rig->start(m, Stream::Raw);
            rig->start(m, Stream::Filtered);
        }
        rig->convert(0xFF);
        rig->now += 0.1;
        select(scenario.modules.front().slot);
    }

    void makeOne(AmplifierKind kind, const Waveform& waveform = {}, Sensor sensor = Sensor::Ok, bool chip = true) {
        ModuleScenario module;
        module.kind = kind;
        module.waveform = waveform;
        module.sensor = sensor;
        module.tedsChip = chip;
        make({module});
    }

    void select(int slot) {
        slot_ = slot;
        rig->select(slot);
    }

    // Command and payload; status and data.
    Bytes ask(Bytes request) {
        request.insert(request.begin(), {0xA5, static_cast<uint8_t>(request.size())});
        request.push_back(0x5A);
        const Bytes reply = rig->exchange(request);
        return reply.size() < 4 ? Bytes{} : Bytes(reply.begin() + 2, reply.end() - 1);
    }

    float number(uint8_t command) {
        const Bytes reply = ask({command});
        float value = NAN;
        if (reply.size() == 5) {
            std::memcpy(&value, reply.data() + 1, 4);
        }
        return value;
    }

    void set(Bytes request) { EXPECT_EQ(Bytes{0}, ask(request)) << int(request[0]); }

    void excite(float value) {
        Bytes request(5, 0xB9);
        std::memcpy(request.data() + 1, &value, 4);
        set(request);
    }

    void apply() { set({0x67}); }

    // The newest samples, settled.
    int16_t raw() {
        rig->now += 0.1;
        const auto samples = rig->read<int16_t>(slot_, Stream::Raw, 1024);
        EXPECT_FALSE(samples.empty());
        return samples.empty() ? 0 : samples.back();
    }

    int32_t filtered() {
        rig->now += 0.1;
        const auto samples = rig->read<int32_t>(slot_, Stream::Filtered, 16000);
        EXPECT_FALSE(samples.empty());
        return samples.empty() ? 0 : samples.back();
    }

    // What a host makes of a sample with the range that it knows and the numbers that the amplifier reports.
    double hostValue(double code, int bits, double range) {
        const double scale = number(0xFA);
        const double offset = number(0xFB);
        return code * 2.0 * range / std::pow(2.0, bits) * scale + offset * scale / 1000.0;
    }

    std::unique_ptr<Rig> rig;
    int slot_ = 0;
};

TEST_F(Bench, everyRangeOfEveryMeasurementReadsTrue) {
    struct Mode {
        AmplifierKind kind;
        uint8_t measurement;
        float excitation;
        bool coupled;  // constant signals do not pass
        std::vector<double> ranges;
    };
    const Mode modes[] = {{AmplifierKind::Voltage, 0, 0.0F, false, {10, 5, 1, 0.1}},
                          {AmplifierKind::Bridge, 0, 5.0F, false, {10, 5, 2, 1}},
                          {AmplifierKind::Bridge, 1, 0.0F, false, {10, 1}},
                          {AmplifierKind::Bridge, 2, 2.5F, false, {100}},
                          {AmplifierKind::Iepe, 0, 4.0F, true, {10, 5, 1}},
                          {AmplifierKind::Iepe, 1, 0.0F, false, {10, 5, 1}},
                          {AmplifierKind::HighVoltage, 0, 0.0F, false, {1000, 400, 200, 50}},
                          {AmplifierKind::Unknown, 0, 0.0F, false, {10}}};
    for (const Mode& mode : modes) {
        makeOne(mode.kind);
        set({0x60, mode.measurement});
        excite(mode.excitation);
        std::vector<double> scales;
        for (size_t i = 0; i < mode.ranges.size(); ++i) {
            const double range = mode.ranges[i];
            const double value = -0.37 * range;
            rig->instrument.setWaveform(0, physical(WaveformKind::Constant, 0.0, value));
            set({0xBC, static_cast<uint8_t>(i)});
            apply();
            const double expected = mode.coupled ? 0.0 : value;
            const std::string what = std::to_string(int(mode.kind)) + "/" + std::to_string(mode.measurement) + "/" +
                                     std::to_string(range);
            EXPECT_NEAR(expected, hostValue(raw(), 16, range), range / 32768.0 * 0.505) << what;
            EXPECT_NEAR(expected, hostValue(filtered(), 32, range), range * 1e-7) << what;
            scales.push_back(number(0xFA));
        }
        if (mode.kind != AmplifierKind::Unknown && scales.size() > 1) {
            EXPECT_NE(scales[0], scales[1]) << "calibrated apart";
        }
    }
}

TEST_F(Bench, unknownAmplifierHasNoErrorOfItsOwn) {
    makeOne(AmplifierKind::Unknown, physical(WaveformKind::Constant, 0.0, 5.0));
    for (const auto& [command, value] : {std::pair<uint8_t, uint8_t>{0xA7, 9}, {0x65, 9}, {0x66, 9}, {0x63, 9}}) {
        EXPECT_EQ((Bytes{0, value}), ask({command}));
    }
    set({0x60, 0});
    set({0xBC, 0});
    apply();
    EXPECT_EQ(16384, raw());
    EXPECT_EQ(1073741824, filtered());
    EXPECT_EQ(Bytes{4}, ask({0xF2, 1}));
}

TEST_F(Bench, settingsTakeEffectWithTheUpdateWhileTheStreamRuns) {
    makeOne(AmplifierKind::Voltage, physical(WaveformKind::Constant, 0.0, 0.5));
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 10.0), 2e-4);
    set({0xBC, 2});
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 10.0), 2e-4) << "staged only";
    EXPECT_EQ(0, rig->instrument.amplifierState(0).range);
    apply();
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 1.0), 2e-5);
    EXPECT_EQ(2, rig->instrument.amplifierState(0).range);
    // What the update refuses leaves all of it.
    set({0xBC, 4});
    EXPECT_EQ(Bytes{3}, ask({0x67}));
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 1.0), 2e-5);
    rig->instrument.setWaveform(0, physical(WaveformKind::Constant, 0.0, -0.25));
    EXPECT_NEAR(-0.25, hostValue(raw(), 16, 1.0), 2e-5);
    // A supply that goes takes the settings along.
    rig->storeBits(0xA6000010, 1, 0);
    rig->storeBits(0xA6000010, 1, 1);
    rig->now += 0.2;
    EXPECT_NEAR(-0.25, hostValue(raw(), 16, 10.0), 2e-4);
    EXPECT_EQ(0u, rig->instrument.statistics(0, Stream::Raw).samplesDropped % 32);
}

TEST_F(Bench, rawModeHidesTheCalibrationButNotTheError) {
    makeOne(AmplifierKind::HighVoltage, physical(WaveformKind::Constant, 0.0, 0.0));
    const int16_t before = raw();
    EXPECT_NE(0, before);
    set({0x41, 1});
    EXPECT_EQ(1.0F, number(0xFA));
    EXPECT_EQ(before, raw());
}

TEST_F(Bench, shortedInputReadsTheOffset) {
    makeOne(AmplifierKind::Voltage, physical(WaveformKind::Sine, 7.0, 1.0));
    set({0xB7, 1});
    apply();
    const double scale = number(0xFA);
    const double offset = number(0xFB);
    const double code = -offset / 1000.0 / (20.0 / 65536.0);
    EXPECT_GT(std::fabs(code), 0.6) << "or nothing is shown";
    EXPECT_NEAR(code, raw(), 0.51);
    EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-8) << scale;
    set({0xB7, 0});
    apply();
    rig->now += 0.013;
    EXPECT_NE(raw(), raw());
}

TEST_F(Bench, excitationCancelsUnlessThereIsNone) {
    makeOne(AmplifierKind::Bridge, physical(WaveformKind::Constant, 0.0, 2.5));
    EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-8) << "power-on: no excitation";
    for (const float volts : {1.0F, 2.5F, 5.0F, 10.0F}) {
        excite(volts);
        apply();
        EXPECT_NEAR(2.5, hostValue(filtered(), 32, 10.0), 1e-7) << volts;
        EXPECT_EQ(volts, rig->instrument.amplifierState(0).excitation);
    }
    excite(0.0F);
    apply();
    EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-8);
    // A voltmeter needs none.
    set({0x60, 1});
    apply();
    EXPECT_NEAR(2.5, hostValue(filtered(), 32, 10.0), 1e-7);
}

TEST_F(Bench, filtersAreThoseOfTheList) {
    // A sine at each corner is 3 dB down; the first entry is the amplifier's own bandwidth.
    const std::vector<double> corners[] = {{5e6, 1e6, 1e5, 1e4, 1e3}, {3e5, 1e5, 1e4, 1e3, 1e2}, {1e6, 1e5, 1e4},
                                           {2e6, 3e5, 3e4}};
    for (int kind = 0; kind < 4; ++kind) {
        makeOne(static_cast<AmplifierKind>(kind));
        if (kind == 1 || kind == 2) {
            set({0x60, 1});
        }
        const double range = kind == 3 ? 1000.0 : 10.0;
        for (size_t i = 0; i < corners[kind].size(); ++i) {
            set({0xC8, static_cast<uint8_t>(i)});
            apply();
            const double corner = corners[kind][i];
            const double beside = std::min(25.0, 0.01 * corner);
            rig->instrument.setWaveform(0, physical(WaveformKind::Sine, 0.8 * range, 0.0, corner + beside));
            rig->now += 0.1;
            double sum = 0.0;
            double mean = 0.0;
            size_t count = 0;
            // At 10 kHz most of them fold to 25 Hz.
            for (int piece = 0; piece < 8; ++piece) {
                rig->now += 0.05;
                for (const int16_t sample : rig->read<int16_t>(0, Stream::Raw, 960)) {
                    sum += static_cast<double>(sample) * sample;
                    mean += sample;
                    ++count;
                }
            }
            ASSERT_GT(count, 2500u);
            mean /= static_cast<double>(count);
            const double rms = std::sqrt(sum / static_cast<double>(count) - mean * mean) * range / 32768.0;
            EXPECT_NEAR(0.4 * range, rms, 0.02 * range) << kind << " " << i;
        }
        set({0xC8, static_cast<uint8_t>(corners[kind].size())});
        EXPECT_EQ(Bytes{3}, ask({0x67}));
    }
}

TEST_F(Bench, couplingBlocksWhatIsConstant) {
    makeOne(AmplifierKind::Voltage, physical(WaveformKind::Constant, 0.0, 4.0));
    EXPECT_NEAR(4.0, hostValue(filtered(), 32, 10.0), 1e-6);
    set({0xC3, 1});
    apply();
    EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-6);
    EXPECT_EQ(1, rig->instrument.amplifierState(0).coupling);
    set({0xC3, 2});
    EXPECT_EQ(Bytes{3}, ask({0x67}));
}

TEST_F(Bench, couplingsOfAnIepeAmplifierHangOnTheMeasurement) {
    // 0.1 and 1 Hz with the current source; direct, 0.1 and 1 Hz without.
    makeOne(AmplifierKind::Iepe, physical(WaveformKind::Constant, 0.0, 3.0));
    excite(4.0F);
    set({0xC3, 2});
    EXPECT_EQ(Bytes{3}, ask({0x67}));
    set({0x60, 1});
    set({0xC3, 2});
    apply();
    EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-6);
    set({0xC3, 0});
    apply();
    EXPECT_NEAR(3.0, hostValue(filtered(), 32, 10.0), 1e-6);
    set({0x60, 0});
    apply();
    EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-6);
}

TEST_F(Bench, sensorStatesShowInSignalAndStatus) {
    const Waveform sine = physical(WaveformKind::Sine, 2.0, 0.0, 100.0);
    const struct {
        Sensor sensor;
        uint8_t status;
    } cases[] = {{Sensor::Ok, 1}, {Sensor::Open, 2}, {Sensor::Shorted, 3}};
    for (const auto& [sensor, status] : cases) {
        makeOne(AmplifierKind::Iepe, sine, sensor);
        EXPECT_EQ((Bytes{0, status}), ask({0xF0}));
        EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-6) << "current off";
        excite(8.0F);
        apply();
        rig->now += 0.0025;
        const int16_t now = raw();
        rig->now += 0.0025;
        const int16_t later = raw();
        if (sensor == Sensor::Ok) {
            EXPECT_NE(now, later);
        } else if (sensor == Sensor::Open) {
            EXPECT_EQ(32767, now);
            EXPECT_EQ(2147483647, filtered());
            // Without the current source nothing is wrong.
            set({0x60, 1});
            apply();
            EXPECT_LT(filtered(), 2147483647);
        } else {
            EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-6);
        }
    }
    makeOne(AmplifierKind::Voltage, sine, Sensor::Open);
    EXPECT_EQ((Bytes{0, 0}), ask({0xF0})) << "does not look";
    EXPECT_LT(filtered(), 2147483647);
}

TEST_F(Bench, tedsChipHasContentsOrIsNotThere) {
    makeOne(AmplifierKind::Bridge);
    const Bytes rom = ask({0xD0});
    ASSERT_EQ(9u, rom.size());
    EXPECT_EQ(0x14, rom[1]);
    // The last byte checks the seven before it: divided bit by bit, nothing is left.
    uint8_t rest = 0;
    for (size_t i = 1; i < rom.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            const bool mixed = ((rest ^ (rom[i] >> bit)) & 1) != 0;
            rest = static_cast<uint8_t>((rest >> 1) ^ (mixed ? 0x8C : 0));
        }
    }
    EXPECT_EQ(0, rest);
    set({0xD1, 0x02, 1, 2, 3});
    set({0x5B});
    rig->now += 0.3;
    rig->instrument.uartFlush();
    EXPECT_EQ((Bytes{0, 1, 2, 3, 0xFF}), ask({0xD1, 0x03, 4})) << "kept over a restart";
    makeOne(AmplifierKind::Bridge, {}, Sensor::Ok, false);
    EXPECT_EQ(Bytes{4}, ask({0xD0}));
    EXPECT_EQ((Bytes{0, 1}), ask({0xF0})) << "a sensor without a chip is one";
}

TEST_F(Bench, stateAndLampAreShown) {
    ModuleScenario voltage;
    ModuleScenario bridge;
    bridge.slot = 3;
    bridge.kind = AmplifierKind::Bridge;
    make({voltage, bridge});
    select(3);
    set({0x60, 1});
    set({0xBC, 1});
    set({0xC8, 2});
    set({0xC9, 2});
    excite(10.0F);
    set({0xB7, 1});
    EXPECT_EQ(0, rig->instrument.amplifierState(3).measurement);
    apply();
    const AmplifierState state = rig->instrument.amplifierState(3);
    EXPECT_TRUE(state.present);
    EXPECT_EQ(1, state.measurement);
    EXPECT_EQ(1, state.range);
    EXPECT_EQ(2, state.lpFilter);
    EXPECT_EQ(0, state.coupling);
    EXPECT_EQ(2, state.inputType);
    EXPECT_EQ(10.0F, state.excitation);
    EXPECT_EQ(0, state.excitationType);
    EXPECT_TRUE(state.shortOn);
    EXPECT_EQ(number(0xFA), state.scale);
    EXPECT_EQ(number(0xFB), state.offset);
    EXPECT_FALSE(rig->instrument.amplifierState(0).shortOn) << "another slot's";
    EXPECT_FALSE(rig->instrument.amplifierState(7).present);
    EXPECT_THROW(rig->instrument.amplifierState(8), std::out_of_range);

    EXPECT_FALSE(rig->instrument.ledOn(3));
    set({0xF2, 1});
    EXPECT_TRUE(rig->instrument.ledOn(3));
    EXPECT_FALSE(rig->instrument.ledOn(0));
    set({0xF2, 0});
    EXPECT_FALSE(rig->instrument.ledOn(3));
    set({0xF2, 1});
    set({0x5B});
    EXPECT_FALSE(rig->instrument.ledOn(3)) << "restarted";
}

TEST_F(Bench, countsPassByTheAmplifier) {
    Waveform counts;
    counts.kind = WaveformKind::Constant;
    counts.offset = 1234.0;
    makeOne(AmplifierKind::Voltage, counts);
    set({0xB7, 1});
    set({0xBC, 3});
    set({0xC3, 1});
    apply();
    EXPECT_EQ(1234, raw());
    EXPECT_EQ(1234 * 65536, filtered());
}

TEST_F(Bench, pluggedAmplifierBringsItsOwnRange) {
    makeOne(AmplifierKind::Voltage, physical(WaveformKind::Constant, 0.0, 5.0));
    EXPECT_NEAR(16384.0, raw(), 20.0);
    ModuleScenario high;
    high.kind = AmplifierKind::HighVoltage;
    high.waveform = physical(WaveformKind::Constant, 0.0, 500.0);
    rig->instrument.plug(high);
    EXPECT_NEAR(16384.0, raw(), 40.0);
    rig->instrument.unplug(0);
    EXPECT_EQ(0, raw());
}

TEST(Physical, changesAndReadsComeFromDifferentThreads) {
    Scenario scenario;
    scenario.supplyOn = true;
    scenario.unthrottled = true;
    scenario.modules.emplace_back();
    Rig rig(scenario);
    rig.raw(0, 150);
    rig.open(0, Stream::Raw, 2000);
    rig.enable(0, true, false);
    rig.start(0, Stream::Raw);
    rig.convert(1);
    rig.now += 1.0;
    rig.select(0);
    std::atomic<bool> stop = false;
    std::atomic<size_t> reads = 0;
    std::thread reader([&] {
        std::vector<int16_t> samples(4000);
        while (!stop) {
            reads += rig.instrument.dmaRead(0, Stream::Raw, samples.data(), 8000) > 0 ? 1 : 0;
        }
    });
    std::thread player([&] {
        for (int i = 0; i < 200; ++i) {
            rig.instrument.setWaveform(0, physical(WaveformKind::Sine, 0.01 * i, 0.0, 100.0 + i));
        }
    });
    for (int i = 0; i < 200 || reads == 0; ++i) {
        const uint8_t range[] = {0xA5, 0x02, 0xBC, static_cast<uint8_t>(i % 4), 0x5A};
        const uint8_t update[] = {0xA5, 0x01, 0x67, 0x5A};
        rig.instrument.uartWrite(range, sizeof range);
        rig.instrument.uartWrite(update, sizeof update);
        EXPECT_EQ(i % 4, rig.instrument.amplifierState(0).range);
    }
    player.join();
    stop = true;
    reader.join();
    // Whoever was last, both count.
    const uint8_t frames[] = {0xA5, 0x02, 0xBC, 0x02, 0x5A, 0xA5, 0x01, 0x67, 0x5A};
    rig.instrument.uartWrite(frames, sizeof frames);
    rig.instrument.setWaveform(0, physical(WaveformKind::Constant, 0.0, 0.5));
    const AmplifierState state = rig.instrument.amplifierState(0);
    const auto samples = rig.read<int16_t>(0, Stream::Raw, 2000);
    ASSERT_FALSE(samples.empty());
    EXPECT_NEAR(0.5, (samples[0] * 2.0 / 65536.0 + state.offset / 1000.0) * state.scale, 2e-5);
}

TEST(StandardScenario, everyModuleShowsASignalWithoutClipping) {
    Scenario scenario = Scenario::standard();
    ASSERT_EQ(8u, scenario.modules.size());
    for (const ModuleScenario& module : scenario.modules) {
        EXPECT_EQ(WaveformUnit::Physical, module.waveform.unit);
        const double range = module.kind == AmplifierKind::HighVoltage ? 1000.0 : 10.0;
        const double peak = module.waveform.amplitude + std::fabs(module.waveform.offset);
        EXPECT_LT(peak, 0.95 * range) << module.slot;
        EXPECT_GT(peak, 0.05 * range) << module.slot;
    }
    for (const ModuleScenario& module : Scenario::counters().modules) {
        EXPECT_EQ(WaveformKind::Counter, module.waveform.kind);
        EXPECT_EQ(WaveformUnit::Counts, module.waveform.unit);
    }
}

TEST(ScenarioUnits, keysSayWhatTheyMean) {
    const auto waveform = [](const std::string& keys) {
        return ScenarioJson::parse("{\"modules\": [{\"slot\": 0, \"waveform\": {" + keys + "}}]}", "s")
            .modules[0]
            .waveform;
    };
    const struct {
        const char* keys;
        WaveformUnit unit;
        double amplitude;
        double offset;
    } cases[] = {{"", WaveformUnit::Counts, 16000.0, 0.0},
                 {R"("amplitudeCounts": 500, "offsetCounts": 3)", WaveformUnit::Counts, 500.0, 3.0},
                 {R"("amplitude": 2.5)", WaveformUnit::Physical, 2.5, 0.0},
                 {R"("offset": -1)", WaveformUnit::Physical, 1.0, -1.0},
                 {R"("unit": "physical")", WaveformUnit::Physical, 1.0, 0.0},
                 {R"("unit": "counts", "amplitude": 77)", WaveformUnit::Counts, 77.0, 0.0},
                 {R"("kind": "counter", "amplitude": 5)", WaveformUnit::Counts, 5.0, 0.0}};
    for (const auto& [keys, unit, amplitude, offset] : cases) {
        const Waveform result = waveform(keys);
        EXPECT_EQ(unit, result.unit) << keys;
        EXPECT_EQ(amplitude, result.amplitude) << keys;
        EXPECT_EQ(offset, result.offset) << keys;
    }
    const std::pair<const char*, const char*> mistakes[] = {
        {R"("unit": "volt")", "waveform.unit: is \"volt\", must be one of counts, physical"},
        {R"("unit": "physical", "kind": "counter")", "waveform.unit: is \"physical\", but a counter"},
        {R"("amplitude": 1, "offsetCounts": 3)", "waveform.offsetCounts: goes neither"},
        {R"("unit": "physical", "amplitudeCounts": 3)", "waveform.amplitudeCounts: goes neither"}};
    for (const auto& [keys, message] : mistakes) {
        try {
            waveform(keys);
            ADD_FAILURE() << keys << " was accepted";
        } catch (const ScenarioError& error) {
            EXPECT_NE(std::string::npos, std::string(error.what()).find(message)) << error.what();
        }
    }
}

TEST(ScenarioUnits, sensorAndKindsComeBackAsWritten) {
    Scenario scenario;
    for (int i = 0; i < 5; ++i) {
        ModuleScenario module;
        module.slot = i;
        module.kind = static_cast<AmplifierKind>(i);
        module.sensor = static_cast<Sensor>(i % 3);
        module.tedsChip = i != 1;
        module.waveform = physical(static_cast<WaveformKind>(i), 0.25 * i, 1.0);
        scenario.modules.push_back(module);
    }
    const Scenario back = ScenarioJson::parse(ScenarioJson::write(scenario), "s");
    ASSERT_EQ(5u, back.modules.size());
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(scenario.modules[i].kind, back.modules[i].kind);
        EXPECT_EQ(scenario.modules[i].sensor, back.modules[i].sensor);
        EXPECT_EQ(scenario.modules[i].tedsChip, back.modules[i].tedsChip);
        EXPECT_EQ(WaveformUnit::Physical, back.modules[i].waveform.unit);
        EXPECT_EQ(scenario.modules[i].waveform.amplitude, back.modules[i].waveform.amplitude);
    }
}

}  // namespace
