#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>

#include "simulator/model/Firmware.h"
#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

using Bytes = std::vector<uint8_t>;
constexpr double pi = std::numbers::pi;
constexpr uint64_t ratio100k = 0x3FFFFFFFFF & (uint64_t(0.171875 * 274877906944.0));  // 100 kHz of 15 MHz, 5 stages

Waveform physical(WaveformKind kind, double amplitude, double offset = 0.0, double hertz = 50.0, double phase = 0.0) {
    return {kind, hertz, amplitude, offset, phase, {}, WaveformUnit::Physical};
}

std::vector<int16_t> rawOf(const SignalSource& source, uint32_t decimation, uint64_t first, size_t count) {
    return samplesOf<int16_t>(Signal(source, StreamFormat::raw(15e6, decimation, 0xFFFFFFFF)), first, count);
}

// At 100 kHz.
std::vector<int32_t> filteredOf(const SignalSource& source, uint64_t first, size_t count) {
    return samplesOf<int32_t>(Signal(source, StreamFormat::lowPassed(15e6, ratio100k, 5, usualFilter)), first, count);
}

// ---- From a physical value to counts ----

TEST(Physical, countsAreThoseOfTheDataSheet) {
    const std::tuple<const char*, double, float, float, double, int16_t, int32_t> cases[] = {
        {"voltage", 5.0, 1.000213F, -1.75F, 3.2, 20979, 1374848434},
        {"bridge", 2.0, 0.9987F, 3.1F, 0.7531, 12304, 806358944},
        {"ideal", 10.0, 1.0F, 0.0F, 5.0, 16384, 1073741824},
        {"offset only", 10.0, 1.0F, 500.0F, 0.0, -1638, -107374182},
        {"full scale clips", 10.0, 1.0F, 0.0F, 10.0, 32767, 2147483647},
        {"too low", 10.0, 0.9998F, 0.0F, -1e6, -32768, -2147483647 - 1}};
    for (const auto& [name, range, scale, offset, value, narrow, wide] : cases) {
        SCOPED_TRACE(name);
        SignalSource source;
        source.waveform = physical(WaveformKind::Constant, 0.0, value);
        source.frontEnd = FrontEnd::calibrated(-range, range, scale, offset);
        EXPECT_EQ(narrow, rawOf(source, 15, 1000, 1)[0]);
        EXPECT_EQ(wide, filteredOf(source, 1000, 1)[0]);
    }
}

// ---- Filters of the amplifier ----

TEST(Physical, sineIsWeakenedAndTurned) {
    const std::tuple<const char*, double, double, double, double, double> cases[] = {
        {"direct", 0.0, 0.0, 1000.0, 1.0, 0.0},
        {"high-pass at its corner", 1.0, 0.0, 1.0, 0.70711, 45.0},
        {"high-pass below", 10.0, 0.0, 1.0, 0.09950, 84.289},
        {"high-pass far above", 1.0, 0.0, 100.0, 0.99995, 0.573},
        {"low-pass at its corner", 0.0, 10000.0, 10000.0, 0.70711, -90.0},
        {"low-pass below", 0.0, 10000.0, 1000.0, 0.99995, -8.130},
        {"low-pass ten times above", 0.0, 10000.0, 100000.0, 0.0100, -171.870},
        {"low-pass octave above", 0.0, 10000.0, 20000.0, 0.24254, -136.686},
        {"both", 1000.0, 1000.0, 1000.0, 0.5, -45.0}};
    for (const auto& [name, highPass, lowPass, hertz, gain, degrees] : cases) {
        SCOPED_TRACE(name);
        SignalSource source;
        source.waveform = physical(WaveformKind::Sine, 20000.0, 3000.0, hertz);
        source.frontEnd.highPassHz = highPass;
        source.frontEnd.lowPassHz = lowPass;
        const double mean = highPass > 0.0 ? 0.0 : 3000.0;
        const auto raw = rawOf(source, 15, 0, 1000000);
        const std::complex<double> rawAmplitude = amplitudeOf(raw, hertz / 1e6);
        EXPECT_NEAR(gain, std::abs(rawAmplitude) / 20000.0, 2e-4);
        EXPECT_NEAR(degrees, std::arg(rawAmplitude) * 180.0 / pi, gain < 0.02 ? 0.5 : 0.05);
        EXPECT_NEAR(mean, std::accumulate(raw.begin(), raw.end(), 0.0) / 1e6, 0.1);
        if (hertz < 40000.0) {
            const auto filtered = filteredOf(source, 1000, 100000);
            EXPECT_NEAR(gain, std::abs(amplitudeOf(filtered, hertz / 1e5)) / 20000.0 / 65536.0, 2e-4);
        }
    }
}

// The shape itself against the sum of the harmonics, each weakened and turned by the circuit.
TEST(Physical, edgesHaveTheShapeThatTheCircuitGives) {
    const std::tuple<const char*, WaveformKind, double, double> cases[] = {
        {"square, high-pass", WaveformKind::Square, 300.0, 0.0},
        {"square, both", WaveformKind::Square, 300.0, 4000.0},
        {"ramp, high-pass", WaveformKind::Ramp, 300.0, 0.0},
        {"ramp, low-pass", WaveformKind::Ramp, 0.0, 2000.0},
        {"ramp, both", WaveformKind::Ramp, 300.0, 4000.0}};
    for (const auto& [name, kind, highPass, lowPass] : cases) {
        SCOPED_TRACE(name);
        SignalSource source;
        source.waveform = physical(kind, 16000.0, 500.0, 1000.0);
        source.frontEnd.highPassHz = highPass;
        source.frontEnd.lowPassHz = lowPass;
        const auto samples = rawOf(source, 100, 0, 150);  // one period
        const bool square = kind == WaveformKind::Square;
        const bool steep = lowPass == 0.0;
        for (size_t n = 0; n < samples.size(); ++n) {
            const double place = static_cast<double>(n) / 150.0;
            if (steep && std::fmod(place, square ? 0.5 : 1.0) == 0.0) {
                continue;  // on an edge
            }
            // Steep edges are taken as they are, and only what the high-pass changes as a sum: that one converges.
            double value = highPass > 0.0 ? 0.0 : 500.0;
            if (steep) {
                value += square ? (place < 0.5 ? 16000.0 : -16000.0) : 16000.0 * (2.0 * place - 1.0);
            }
            for (int k = 1; k < 2000; k += square ? 2 : 1) {
                const double hertz = 1000.0 * k;
                std::complex<double> gain = highPass > 0.0 ? 1.0 / std::complex(1.0, -highPass / hertz) : 1.0;
                if (steep) {
                    gain -= 1.0;
                } else {
                    const double relative = hertz / lowPass;
                    gain /= std::complex(1.0 - relative * relative, std::numbers::sqrt2 * relative);
                }
                const double part = 16000.0 * (square ? 4.0 : -2.0) / (pi * k);
                value += part * (gain * std::polar(1.0, 2.0 * pi * k * place)).imag();
            }
            EXPECT_NEAR(value, samples[n], 1.0) << n;
        }
    }
}

TEST(Physical, edgesRingAsTheSlowerFilterWants) {
    SignalSource source;
    source.waveform = physical(WaveformKind::Square, 10000.0, 0.0, 50.0);
    const auto peak = [&] {
        const auto samples = filteredOf(source, 1000, 2000);
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

TEST(Physical, fileIsScaledAndShifted) {
    SignalSource source;
    source.waveform = physical(WaveformKind::Wav, 5.0, 1.0);
    source.recording = std::make_shared<const std::vector<int16_t>>(std::vector<int16_t>{0, 16384, -32768});
    source.frontEnd = FrontEnd::calibrated(-10.0, 10.0, 1.0, 0.0);
    EXPECT_EQ((std::vector<int16_t>{3277, 11469, -13107, 3277}), rawOf(source, 1, 0, 4));
    EXPECT_NEAR(-13107.2 * 65536.0, filteredOf(source, 2, 1)[0], 1.0);
}

// ---- The whole amplifier, driven by its frames ----

struct Bench : testing::Test {
    void make(AmplifierKind kind, const Waveform& waveform = {}, Sensor sensor = Sensor::Ok) {
        Scenario scenario;
        scenario.supplyOn = true;
        scenario.modules = {{.kind = kind, .waveform = waveform, .sensor = sensor}};
        rig = std::make_unique<Rig>(scenario);
        rig->raw(0, 1500);
        rig->filtered(0, 5, ratio100k);
        rig->transfer(0, Stream::Raw, 64);
        rig->transfer(0, Stream::Filtered, 800);
        rig->convert(0xFF);
        rig->now += 0.1;
        rig->select(0);
    }

    Bytes ask(const Bytes& request) { return rig->ask(request); }
    void set(const Bytes& request) { EXPECT_EQ(Bytes{0}, ask(request)) << int(request[0]); }
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
        const double scale = rig->number(0xFA);
        const double offset = rig->number(0xFB);
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
    EXPECT_EQ(1.0F, rig->number(0xFA));
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

TEST_F(Bench, sensorStatesShowInSignalAndStatus) {
    // value: V, of 2 at the input; 10 is all that fits.
    const std::tuple<AmplifierKind, Sensor, uint8_t, double> cases[] = {
        {AmplifierKind::Bridge, Sensor::Ok, 1, 2.0},
        {AmplifierKind::Bridge, Sensor::Open, 2, 10.0},
        {AmplifierKind::Bridge, Sensor::Shorted, 3, 0.0},
        {AmplifierKind::Voltage, Sensor::Open, 0, 2.0}};  // does not look
    for (const auto& [kind, sensor, status, value] : cases) {
        make(kind, physical(WaveformKind::Constant, 0.0, 2.0), sensor);
        const bool excitable = kind == AmplifierKind::Bridge;
        EXPECT_EQ((Bytes{0, status}), ask({0xF0}));
        EXPECT_NEAR(excitable ? 0.0 : 2.0, hostValue(filtered(), 32, 10.0), 1e-6) << "excitation off";
        if (excitable) {
            set({0xB9, 0x00, 0x00, 0x20, 0x40});  // 2.5 V
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
    make(AmplifierKind::Voltage, {.kind = WaveformKind::Constant, .offset = 1234.0, .file = {}});
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
    ModuleScenario high{.kind = AmplifierKind::HighVoltage, .waveform = physical(WaveformKind::Constant, 0.0, 500.0)};
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
