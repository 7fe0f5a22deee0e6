#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <memory>
#include <numbers>
#include <numeric>

#include "simulator/model/Firmware.h"
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
    EXPECT_NEAR(mean, std::accumulate(raw.begin(), raw.end(), 0.0) / 1e6, 0.1);
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
        const auto samples = samplesOf<int16_t>(source, rawAt(1), 0, 200000);
        return std::sqrt(std::inner_product(samples.begin(), samples.end(), samples.begin(), 0.0) / 200000.0);
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
    void make(AmplifierKind kind, const Waveform& waveform = {}, Sensor sensor = Sensor::Ok) {
        Scenario scenario;
        scenario.supplyOn = true;
        ModuleScenario module;
        module.kind = kind;
        module.waveform = waveform;
        module.sensor = sensor;
        scenario.modules = {module};
        rig = std::make_unique<Rig>(scenario);
        rig->raw(0, 1500);
        rig->filtered(0, 5, ratio100k);
        rig->open(0, Stream::Raw, 64);
        rig->open(0, Stream::Filtered, 800);
        rig->enable(0, true, true);
        rig->start(0, Stream::Raw);
        rig->start(0, Stream::Filtered);
        rig->convert(0xFF);
        rig->now += 0.1;
        rig->select(0);
    }

    Bytes ask(const Bytes& request) { return rig->ask(request); }
    float number(uint8_t command) { return rig->number(command); }
    void set(Bytes request) { EXPECT_EQ(Bytes{0}, ask(request)) << int(request[0]); }

    void excite(float value) {
        Bytes request(5, 0xB9);
        std::memcpy(request.data() + 1, &value, 4);
        set(request);
    }

    void apply() { set({0x67}); }

    // The newest sample, settled.
    template <typename Sample>
    Sample newest(Stream stream) {
        rig->now += 0.1;
        const auto samples = rig->read<Sample>(0, stream, 16000);
        EXPECT_FALSE(samples.empty());
        return samples.empty() ? Sample(0) : samples.back();
    }
    int16_t raw() { return newest<int16_t>(Stream::Raw); }
    int32_t filtered() { return newest<int32_t>(Stream::Filtered); }

    // What a host makes of a sample with the range that it knows and the numbers that the amplifier reports.
    double hostValue(double code, int bits, double range) {
        const double scale = number(0xFA);
        const double offset = number(0xFB);
        return code * 2.0 * range / std::pow(2.0, bits) * scale + offset * scale / 1000.0;
    }

    std::unique_ptr<Rig> rig;
};

TEST_F(Bench, settingsTakeEffectWithTheUpdateWhileTheStreamRuns) {
    make(AmplifierKind::Voltage, physical(WaveformKind::Constant, 0.0, 0.5));
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 10.0), 2e-4);
    set({0xBC, 2});
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 10.0), 2e-4) << "staged only";
    EXPECT_EQ(0, rig->instrument.amplifierState(0).range);
    apply();
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 1.0), 2e-5);
    EXPECT_EQ(2, rig->instrument.amplifierState(0).range);
    set({0x41, 1});
    EXPECT_EQ(1.0F, number(0xFA));
    set({0x41, 0});
    EXPECT_NEAR(0.5, hostValue(raw(), 16, 1.0), 2e-5) << "raw mode is one of the reports only";
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

// What the lists hold shows in the front end alone; Corners and TransferTest tell what becomes of that.
TEST(FirmwareLists, areThoseOfTheKind) {
    using List = std::vector<double>;
    const struct {
        AmplifierKind kind;
        uint8_t measurement;
        List ranges;
        List lowPasses;
        List highPasses;
    } cases[] = {{AmplifierKind::Voltage, 0, {10, 5, 1, 0.1}, {5e6, 1e6, 1e5, 1e4, 1e3}, {0, 1}},
                 {AmplifierKind::Bridge, 0, {10, 5, 2, 1}, {3e5, 1e5, 1e4, 1e3, 1e2}, {0}},
                 {AmplifierKind::Bridge, 1, {10, 1}, {3e5, 1e5, 1e4, 1e3, 1e2}, {0}},
                 {AmplifierKind::Bridge, 2, {100}, {3e5, 1e5, 1e4, 1e3, 1e2}, {0}},
                 {AmplifierKind::Iepe, 0, {10, 5, 1}, {1e6, 1e5, 1e4}, {0.1, 1}},
                 {AmplifierKind::Iepe, 1, {10, 5, 1}, {1e6, 1e5, 1e4}, {0, 0.1, 1}},
                 {AmplifierKind::HighVoltage, 0, {1000, 400, 200, 50}, {2e6, 3e5, 3e4}, {0}},
                 {AmplifierKind::Unknown, 0, {10}, {0}, {0}}};
    for (const auto& [kind, measurement, ranges, lowPasses, highPasses] : cases) {
        ModuleScenario module;
        module.kind = kind;
        Firmware firmware(module, 1, 1);
        firmware.execute(0x60, {measurement});
        // All that an update takes of a list, one after the other.
        const auto values = [&](uint8_t command, auto value) {
            List result;
            for (uint8_t i = 0; firmware.execute(command, {i}), firmware.execute(0x67, {}).status == 0; ++i) {
                result.push_back(value(firmware.frontEnd()));
            }
            firmware.execute(command, {0});
            return result;
        };
        const auto range = [&](const FrontEnd& end) {
            return std::round(327680.0 / end.countsPerUnit / firmware.scale()) / 10.0;
        };
        EXPECT_EQ(ranges, values(0xBC, range)) << int(kind);
        EXPECT_EQ(lowPasses, values(0xC8, [](const FrontEnd& end) { return end.lowPassHz; })) << int(kind);
        EXPECT_EQ(highPasses, values(0xC3, [](const FrontEnd& end) { return end.highPassHz; })) << int(kind);
    }
}

TEST_F(Bench, sensorStatesShowInSignalAndStatus) {
    const struct {
        AmplifierKind kind;
        Sensor sensor;
        uint8_t status;
        double value;  // V, of 2 at the input; 10 is all that fits
    } cases[] = {{AmplifierKind::Bridge, Sensor::Ok, 1, 2.0},
                 {AmplifierKind::Bridge, Sensor::Open, 2, 10.0},
                 {AmplifierKind::Bridge, Sensor::Shorted, 3, 0.0},
                 {AmplifierKind::Voltage, Sensor::Open, 0, 2.0}};  // does not look
    for (const auto& [kind, sensor, status, value] : cases) {
        make(kind, physical(WaveformKind::Constant, 0.0, 2.0), sensor);
        const bool excitable = kind == AmplifierKind::Bridge;
        EXPECT_EQ((Bytes{0, status}), ask({0xF0}));
        EXPECT_NEAR(excitable ? 0.0 : 2.0, hostValue(filtered(), 32, 10.0), 1e-6) << "excitation off";
        if (excitable) {
            excite(2.5F);
            apply();
            EXPECT_NEAR(value, hostValue(filtered(), 32, 10.0), value == 10.0 ? 0.03 : 1e-6);
            set({0x60, 1});
            apply();
            EXPECT_NEAR(2.0, hostValue(filtered(), 32, 10.0), 1e-6) << "nothing is wrong without excitation";
        }
        set({0xB7, 1});
        apply();
        EXPECT_NEAR(0.0, hostValue(filtered(), 32, 10.0), 1e-6) << "shorted inside";
    }
}

TEST_F(Bench, countsPassByTheAmplifier) {
    Waveform counts;
    counts.kind = WaveformKind::Constant;
    counts.offset = 1234.0;
    make(AmplifierKind::Voltage, counts);
    set({0xB7, 1});
    set({0xBC, 3});
    set({0xC3, 1});
    apply();
    EXPECT_EQ(1234, raw());
    EXPECT_EQ(1234 * 65536, filtered());
}

TEST_F(Bench, pluggedAmplifierBringsItsOwnRange) {
    make(AmplifierKind::Voltage, physical(WaveformKind::Constant, 0.0, 5.0));
    EXPECT_NEAR(16384.0, raw(), 20.0);
    ModuleScenario high;
    high.kind = AmplifierKind::HighVoltage;
    high.waveform = physical(WaveformKind::Constant, 0.0, 500.0);
    rig->instrument.plug(high);
    EXPECT_EQ(Bytes{}, ask({0xA7})) << "boots";
    EXPECT_NEAR(16384.0, raw(), 40.0);
    EXPECT_EQ((Bytes{0, 4}), ask({0xA7}));
    rig->instrument.unplug(0);
    EXPECT_EQ(0, raw());
    EXPECT_EQ(Bytes{}, ask({0xA7}));
    high.slot = 8;
    EXPECT_THROW(rig->instrument.plug(high), std::out_of_range);
}

}  // namespace
