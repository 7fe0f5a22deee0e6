#include <gtest/gtest.h>

#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

using Real = long double;
constexpr Real pi = std::numbers::pi_v<Real>;
constexpr double bandwidthRate = 1000000.0;
constexpr uint64_t ratio1M = 240518168576;

SignalSource source(WaveformKind kind, double hertz, double amplitude = 16000.0, double offset = 0.0,
                    double phase = 0.0) {
    SignalSource result;
    result.waveform = {kind, hertz, amplitude, offset, phase, {}};
    result.seed = 42;
    return result;
}

// The sine as it is, in twice the precision: also after five days of samples at 15 MHz.
TEST(Waveforms, rawSineKeepsItsPhaseForDays) {
    const std::tuple<const char*, double, double, uint32_t, double, double, double> cases[] = {
        {"short period", 50.0, 15e6, 15000, 16000.0, 0.0, 0.0},
        {"long period", 50.0, 15e6, 1, 30000.0, -100.25, 1.25},
        {"no period", 1234.56789, 15e6, 1, 32767.0, 0.0, -3.0},
        {"oscillator error", 50.0, 15e6 * (1.0 + 12e-6), 3, 20000.0, 5.0, 0.0},
        {"above half the rate", 1010.0, 10e6, 10000, 1000.0, 0.0, 0.5},
        {"saturates", 440.0, 10e6, 7, 60000.0, 1000.0, 0.0},
        {"stands still", 1000.0, 15e6, 15000, 1000.0, 3.0, 0.5}};
    for (const auto& [name, hertz, clock, decimation, amplitude, offset, phase] : cases) {
        SCOPED_TRACE(name);
        const Signal signal(source(WaveformKind::Sine, hertz, amplitude, offset, phase),
                            StreamFormat::raw(clock, decimation, 0xFFFFFFFF));
        for (const uint64_t first : {uint64_t(0), uint64_t(1021), uint64_t(123456789), uint64_t(6480000000000) + 77}) {
            const auto samples = samplesOf<int16_t>(signal, first, 3000);
            for (size_t i = 0; i < samples.size(); ++i) {
                const Real ticks = static_cast<Real>(first + i) * decimation;
                const Real cycles = std::fmod(ticks * hertz / static_cast<Real>(clock), 1.0L);
                const Real value = offset + amplitude * std::sin(2 * pi * cycles + phase);
                const auto expected = static_cast<double>(std::clamp(value, -32768.0L, 32767.0L));
                ASSERT_NEAR(expected, samples[i], 0.501) << first + i;
            }
        }
    }
}

template <typename Sample>
void expectNoSeams(const Signal& signal, WaveformKind kind) {
    const auto whole = samplesOf<Sample>(signal, 0, 20000);
    for (size_t first = 0, size = 1; first < whole.size(); first += size, size = size * 3 % 1613 + 1) {
        const size_t count = std::min(size, whole.size() - first);
        const auto piece = samplesOf<Sample>(signal, first, count);
        ASSERT_TRUE(std::equal(piece.begin(), piece.end(), whole.begin() + static_cast<std::ptrdiff_t>(first)))
            << int(kind) << " at " << first;
    }
}

TEST(Waveforms, piecesJoinWithoutSeam) {
    const StreamFormat raw = StreamFormat::raw(15e6, 1, 0xFFFFFFFF);
    const StreamFormat filtered = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter);
    for (const WaveformKind kind : {WaveformKind::Constant, WaveformKind::Sine, WaveformKind::Square,
                                    WaveformKind::Ramp, WaveformKind::Noise, WaveformKind::Counter}) {
        for (const double hertz : {997.0001, 1000.0, 98765.4321}) {
            const Signal rawSignal(source(kind, hertz), raw);
            const Signal filteredSignal(source(kind, hertz), filtered);
            expectNoSeams<int16_t>(rawSignal, kind);
            expectNoSeams<int32_t>(filteredSignal, kind);
        }
    }
}

TEST(Waveforms, chainDelaysAndPassesASineInItsBand) {
    const std::tuple<const char*, double, uint64_t, uint32_t, double, double> cases[] = {
        {"1.875 MHz", 15e6, 0, 1, 1875000.0, 349.0},
        {"1 MHz", 15e6, ratio1M, 1, 1e6, 606.25},
        {"50 kHz", 15e6, 47244640256, 6, 50000.0, 12315.15625},
        {"100 Hz", 15e6, 39694893056, 15, 100.0, 6150016.0},
        {"2 MHz of 10 MHz", 10e6, uint64_t(0x10) << 32, 0, 2e6, 217.5},
        {"16 kHz of 10 MHz", 10e6, 60666413056, 7, 16000.0, 25638.5}};
    for (const auto& [name, clock, ratio, halfBands, rate, delayTicks] : cases) {
        SCOPED_TRACE(name);
        const StreamFormat format = StreamFormat::lowPassed(clock, ratio, halfBands, usualFilter);
        EXPECT_DOUBLE_EQ(rate, format.rate());
        const double hertz = 0.11 * rate;
        const Signal signal(source(WaveformKind::Sine, hertz, 10000.0, 500.0, 0.3), format);
        const uint64_t first = 1000;
        const auto samples = samplesOf<int32_t>(signal, first, 500);
        for (size_t i = 0; i < samples.size(); ++i) {
            const Real time = static_cast<Real>(first + i) / rate - delayTicks / static_cast<Real>(clock);
            const Real value = 65536.0L * (500.0L + 10000.0L * std::sin(2 * pi * hertz * time + 0.3L));
            // The pass band's ripple is some 3e-5 in each stage, of 6.6e8 counts.
            ASSERT_NEAR(static_cast<double>(value), samples[i], 65536.0) << i;
        }
    }
}

double peak(const std::vector<int32_t>& samples) {
    double highest = 0.0;
    for (const int32_t sample : samples) {
        highest = std::max(highest, std::fabs(static_cast<double>(sample)) / 65536.0);
    }
    return highest;
}

TEST(Waveforms, filterEndsAtHalfTheRate) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter);
    const auto gain = [&](double part) {
        const Signal signal(source(WaveformKind::Sine, part * bandwidthRate, 10000.0), format);
        return 20.0 * std::log10(std::max(peak(samplesOf<int32_t>(signal, 1000, 20000)) / 10000.0, 1e-9));
    };
    EXPECT_NEAR(0.0, gain(0.4499), 0.01);
    EXPECT_NEAR(-0.22, gain(0.4701), 0.02);
    EXPECT_NEAR(-6.02, gain(0.5003), 0.2);
    EXPECT_LT(gain(0.551), -97.0);
    EXPECT_LT(gain(1.0001), -97.0);
    EXPECT_LT(gain(2.0001), -80.0) << "stopped by the stage before the last";
}

TEST(Waveforms, coefficientsDecideTheGain) {
    const auto level = [](const HalfBand& filter) {
        const Signal signal(source(WaveformKind::Constant, 0.0, 0.0, 1000.0),
                            StreamFormat::lowPassed(15e6, ratio1M, 1, filter));
        return samplesOf<int32_t>(signal, 500, 1)[0] / 65536.0;
    };
    EXPECT_DOUBLE_EQ(1000.0, level(usualFilter));
    EXPECT_DOUBLE_EQ(0.0, level(HalfBand{})) << "never written";
    HalfBand centreOnly;
    centreOnly.coefficients[32] = 33554432;
    EXPECT_DOUBLE_EQ(500.0, level(centreOnly));
}

TEST(Waveforms, filteredStreamSettlesFromNothing) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter);
    const auto samples = samplesOf<int32_t>(Signal(source(WaveformKind::Constant, 0, 0, 1000.0), format), 0, 100);
    EXPECT_LT(std::abs(samples[0]), 65536);
    // Half-way where the delay ends, at 40.4 samples.
    EXPECT_LT(samples[40], 500 * 65536);
    EXPECT_GT(samples[41], 500 * 65536);
    EXPECT_EQ(1000 * 65536, samples[99]);
    // Where a moving signal goes over into its steady form nothing jumps.
    const auto moving = samplesOf<int32_t>(Signal(source(WaveformKind::Sine, 20000.0, 10000.0), format), 0, 120);
    for (size_t n = 74; n < moving.size(); ++n) {
        const double time = static_cast<double>(n) / bandwidthRate - 606.25 / 15e6;
        EXPECT_NEAR(65536.0 * 10000.0 * std::sin(2 * std::numbers::pi * 20000.0 * time), moving[n], 65536.0) << n;
    }
}

// With a period that a table can hold and without, beyond the first block and far from the start.
TEST(Waveforms, squareAndRampOnTheRawStream) {
    for (const auto& [hertz, decimation] : {std::pair<double, uint32_t>{50.0, 15000}, {98765.4321, 1}}) {
        const StreamFormat format = StreamFormat::raw(15e6, decimation, 0xFFFFFFFF);
        const uint64_t first = 6480000000000 + 500;
        const Signal squares(source(WaveformKind::Square, hertz, 1000.0, 10.0), format);
        const Signal ramps(source(WaveformKind::Ramp, hertz, 30000.0), format);
        const auto square = samplesOf<int16_t>(squares, first, 3000);
        const auto ramp = samplesOf<int16_t>(ramps, first, 3000);
        for (size_t i = 0; i < square.size(); ++i) {
            const Real ticks = static_cast<Real>(first + i) * decimation;
            const Real place = std::fmod(ticks * static_cast<Real>(hertz) / 15e6L, 1.0L);
            const Real fromHalf = std::fabs(place - 0.5L);
            if (decimation != 1 || (fromHalf > 1e-6L && fromHalf < 0.499999L)) {  // an edge may fall on either side
                ASSERT_EQ(place < 0.5L ? 1010 : -990, square[i]) << i;
                ASSERT_NEAR(static_cast<double>(30000.0L * (2.0L * place - 1.0L)), ramp[i], 0.51) << i;
            }
        }
    }
}

// In the pass band each has its own amplitude; the next ones are stopped before they could fold.
TEST(Waveforms, harmonicsAreThereAndNoAliases) {
    // periods: in 5000 samples; lowPass: of the amplifier, in Hz, 0 is none.
    const std::tuple<const char*, WaveformKind, int, double> cases[] = {
        {"square", WaveformKind::Square, 200, 0.0},
        {"square of few samples", WaveformKind::Square, 700, 0.0},
        {"square low-passed", WaveformKind::Square, 200, 50000.0},
        {"ramp", WaveformKind::Ramp, 100, 0.0},
        {"ramp of few samples", WaveformKind::Ramp, 1010, 0.0}};
    for (const auto& [name, kind, periods, lowPass] : cases) {
        SCOPED_TRACE(name);
        const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter);
        const double hertz = periods * 200.0;
        // The second never repeats exactly and takes the other way through the code.
        for (const double deviation : {0.0, 1e-7}) {
            SignalSource wave = source(kind, hertz + deviation, 10000.0);
            wave.waveform.unit = WaveformUnit::Physical;
            wave.frontEnd.lowPassHz = lowPass;
            const auto samples = samplesOf<int32_t>(Signal(wave, format), 1000, 5000);
            std::vector<double> expected(2501, 0.0);
            const bool square = kind == WaveformKind::Square;
            for (int k = 1; k * periods <= 2250; k += square ? 2 : 1) {
                const double corner = lowPass > 0.0 ? k * hertz / lowPass : 0.0;
                expected[static_cast<size_t>(k * periods)] =
                    (square ? 4.0 : 2.0) / std::numbers::pi * 10000.0 / k / std::sqrt(1.0 + std::pow(corner, 4));
            }
            const int step = periods > 400 ? 1 : periods / 20;
            for (int cycles = 1; cycles < 2500; cycles += cycles % periods == 0 ? 1 : step) {
                const bool stopped = cycles > 2250;
                const double want = expected[static_cast<size_t>(cycles)];
                const double found = std::abs(amplitudeOf(samples, cycles / 5000.0)) / 65536.0;
                EXPECT_NEAR(want, found, stopped ? 300.0 : 0.001 * want + 2.0) << cycles;
            }
        }
    }
}

// From steps or from harmonics, and far above the band nothing.
TEST(Waveforms, filteredSquareAndRampOfAnyFrequency) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter);
    for (const WaveformKind kind : {WaveformKind::Square, WaveformKind::Ramp}) {
        const double border = bandwidthRate / 64.0;
        const auto steps = samplesOf<int32_t>(Signal(source(kind, border * (1.0 - 1e-9)), format), 100, 5000);
        const auto series = samplesOf<int32_t>(Signal(source(kind, border * (1.0 + 1e-9)), format), 100, 5000);
        double worst = 0.0;
        for (size_t i = 0; i < steps.size(); ++i) {
            worst = std::max(worst, std::fabs(static_cast<double>(steps[i]) - series[i]) / 65536.0);
        }
        EXPECT_LT(worst, 16000.0 * 0.001);
        for (const double part : {0.56, 1.0, 2.0, 3.0}) {
            const Signal stopped(source(kind, part * bandwidthRate, 16000.0, 0.0, 1.0), format);
            EXPECT_LT(peak(samplesOf<int32_t>(stopped, 1000, 500)), 2.0) << part;
        }
    }
}

TEST(Waveforms, noiseIsReproducibleUniformAndDifferentInEachSlot) {
    const StreamFormat format = StreamFormat::raw(15e6, 1, 0xFFFFFFFF);
    SignalSource here = source(WaveformKind::Noise, 0.0, 1000.0);
    const auto samples = samplesOf<int16_t>(Signal(here, format), 0, 100000);
    const auto [lowest, highest] = std::minmax_element(samples.begin(), samples.end());
    EXPECT_GE(*lowest, -1000);
    EXPECT_LE(*highest, 1000);
    EXPECT_NEAR(0.0, std::accumulate(samples.begin(), samples.end(), 0.0) / 1e5, 10.0);
    const double power = std::inner_product(samples.begin(), samples.end(), samples.begin(), 0.0) / 1e5;
    EXPECT_NEAR(1000.0 / std::sqrt(3.0), std::sqrt(power), 5.0);
    EXPECT_EQ(samples, samplesOf<int16_t>(Signal(here, format), 0, 100000));
    here.seed = 43;
    const auto other = samplesOf<int16_t>(Signal(here, format), 0, 100000);
    EXPECT_LT(std::fabs(std::inner_product(samples.begin(), samples.end(), other.begin(), 0.0) / 1e5), 0.02 * power);
    // Filtered it has the band's share of the power.
    const StreamFormat narrow = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter);
    const auto filtered = samplesOf<int32_t>(Signal(source(WaveformKind::Noise, 0, 3000.0), narrow), 1000, 100000);
    const std::vector<double> quiet(filtered.begin(), filtered.end());
    const double rest = std::inner_product(quiet.begin(), quiet.end(), quiet.begin(), 0.0) / 1e5;
    EXPECT_NEAR(3000.0 / std::sqrt(3.0 * 15.0), std::sqrt(rest) / 65536.0, 5.0);
}

// Sizes that nobody needs are left out; between the chunks that matter lies one of three bytes.
std::string waveFile(char format, char channels, char bits, const std::vector<int16_t>& samples) {
    std::string bytes("RIFF----WAVEfmt \x10\0\0\0?\0?\0--------\2\0?\0LIST\3\0\0\0abc\0data?\0\0\0", 56);
    bytes[20] = format;
    bytes[22] = channels;
    bytes[34] = bits;
    bytes[52] = static_cast<char>(2 * samples.size());
    return bytes.append(reinterpret_cast<const char*>(samples.data()), 2 * samples.size());
}

struct WavTest : testing::Test {
    WavTest()
        : file_((std::filesystem::temp_directory_path() / ("kestrix-wave-" + std::to_string(getpid()))).string()) {}
    ~WavTest() override { std::filesystem::remove(file_); }

    Scenario scenario(const std::string& bytes) {
        std::ofstream(file_, std::ios::binary) << bytes;
        Scenario result = Scenario::counters(1);
        result.modules[0].waveform.kind = WaveformKind::Wav;
        result.modules[0].waveform.file = file_;
        result.unthrottled = true;
        return result;
    }

    std::string file_;
};

TEST_F(WavTest, playsTheFileSampleBySampleInALoop) {
    // Stereo: the left channel.
    Rig rig(scenario(waveFile(1, 2, 16, {1, -1, -32768, -1, 3, -1, 32767, -1, 5, -1})));
    rig.raw(0, 15000);
    rig.filtered(0, 11, (uint64_t(0x35) << 32) + 0x30000000);
    rig.transfer(0, Stream::Raw, 8);
    rig.transfer(0, Stream::Filtered, 8);
    rig.convert(1);
    EXPECT_EQ((std::vector<int16_t>{1, -32768, 3, 32767, 5, 1, -32768, 3}), rig.read<int16_t>(0, Stream::Raw, 16));
    EXPECT_EQ((std::vector<int16_t>{32767, 5, 1, -32768}), rig.read<int16_t>(0, Stream::Raw, 8));
    EXPECT_EQ((std::vector<int32_t>{65536, INT32_MIN, 196608, 32767 * 65536, 327680, 65536}),
              rig.read<int32_t>(0, Stream::Filtered, 24));
}

TEST_F(WavTest, refusesWhatItCannotPlay) {
    const std::string good = waveFile(1, 1, 16, {1, 2, 3});
    EXPECT_NO_THROW(Rig{scenario(good)});
    EXPECT_THROW(Rig{scenario(waveFile(3, 1, 32, {1, 2}))}, std::runtime_error);
    EXPECT_THROW(Rig{scenario(waveFile(1, 6, 16, {1, 2, 3, 4, 5, 6}))}, std::runtime_error);
    EXPECT_THROW(Rig{scenario(waveFile(1, 1, 16, {}))}, std::runtime_error);
    for (size_t size = 0; size < good.size() - 4; ++size) {
        EXPECT_THROW(Rig{scenario(good.substr(0, size))}, std::runtime_error) << size;
    }
    Scenario missing = scenario(good);
    missing.modules[0].waveform.file += ".not";
    EXPECT_THROW(Rig{missing}, std::runtime_error);
}

}  // namespace
