#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <unistd.h>

#include "simulator/model/Signal.h"
#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

using Real = long double;
constexpr Real pi = std::numbers::pi_v<Real>;
constexpr double bandwidthRate = 1000000.0;
constexpr uint64_t ratio1M = 240518168576;

HalfBand usualFilter() {
    HalfBand filter;
    std::copy(halfBandWords.begin(), halfBandWords.end(), filter.coefficients.begin());
    return filter;
}

SignalSource source(WaveformKind kind, double hertz, double amplitude = 16000.0, double offset = 0.0,
                    double phase = 0.0) {
    SignalSource result;
    result.waveform = {kind, hertz, amplitude, offset, phase, {}};
    result.seed = 42;
    return result;
}

template <typename Sample>
std::vector<Sample> samplesOf(const Signal& signal, uint64_t first, size_t count) {
    std::vector<Sample> samples(count);
    signal.generate(first, count, samples.data());
    return samples;
}

double clipped(Real value, bool filtered) {
    const Real limit = filtered ? 2147483648.0L : 32768.0L;
    return static_cast<double>(std::min(std::max(value, -limit), limit - 1));
}

struct SineCase {
    const char* name;
    double hertz;
    double clock;
    uint32_t decimation;
    double amplitude;
    double offset;
    double phase;
};

class RawSine : public testing::TestWithParam<SineCase> {};

// The sine as it is, in twice the precision: also after five days of samples at 15 MHz.
TEST_P(RawSine, keepsItsPhaseForDays) {
    const SineCase& p = GetParam();
    const Signal signal(source(WaveformKind::Sine, p.hertz, p.amplitude, p.offset, p.phase),
                        StreamFormat::raw(p.clock, p.decimation, 0xFFFFFFFF));
    for (const uint64_t first : {uint64_t(0), uint64_t(1021), uint64_t(123456789), uint64_t(6480000000000) + 77}) {
        const auto samples = samplesOf<int16_t>(signal, first, 3000);
        for (size_t i = 0; i < samples.size(); ++i) {
            const Real ticks = static_cast<Real>(first + i) * p.decimation;
            const Real cycles = std::fmod(ticks * p.hertz / static_cast<Real>(p.clock), 1.0L);
            const Real value = p.offset + p.amplitude * std::sin(2 * pi * cycles + p.phase);
            ASSERT_NEAR(clipped(value, false), samples[i], 0.501) << first + i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Settings, RawSine,
                         testing::Values(SineCase{"shortPeriod", 50.0, 15e6, 15000, 16000.0, 0.0, 0.0},
                                         SineCase{"longPeriod", 50.0, 15e6, 1, 30000.0, -100.25, 1.25},
                                         SineCase{"noPeriod", 1234.56789, 15e6, 1, 32767.0, 0.0, -3.0},
                                         SineCase{"oscillatorError", 50.0, 15e6 * (1.0 + 12e-6), 3, 20000.0, 5.0, 0.0},
                                         SineCase{"aboveHalfTheRate", 1010.0, 10e6, 10000, 1000.0, 0.0, 0.5},
                                         SineCase{"saturates", 440.0, 10e6, 7, 60000.0, 1000.0, 0.0},
                                         SineCase{"standsStill", 1000.0, 15e6, 15000, 1000.0, 3.0, 0.5}),
                         [](const auto& info) { return info.param.name; });

TEST(Waveforms, piecesJoinWithoutSeam) {
    const StreamFormat raw = StreamFormat::raw(15e6, 1, 0xFFFFFFFF);
    const StreamFormat filtered = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter());
    for (const WaveformKind kind : {WaveformKind::Constant, WaveformKind::Sine, WaveformKind::Square,
                                    WaveformKind::Ramp, WaveformKind::Noise, WaveformKind::Counter}) {
        for (const double hertz : {997.0001, 1000.0}) {
            const Signal rawSignal(source(kind, hertz), raw);
            const Signal filteredSignal(source(kind, hertz), filtered);
            const auto wholeRaw = samplesOf<int16_t>(rawSignal, 0, 20000);
            const auto wholeFiltered = samplesOf<int32_t>(filteredSignal, 0, 20000);
            for (size_t first = 0, size = 1; first < wholeRaw.size(); first += size, size = size * 3 % 1613 + 1) {
                const size_t count = std::min(size, wholeRaw.size() - first);
                const auto pieceRaw = samplesOf<int16_t>(rawSignal, first, count);
                const auto pieceFiltered = samplesOf<int32_t>(filteredSignal, first, count);
                ASSERT_TRUE(std::equal(pieceRaw.begin(), pieceRaw.end(), wholeRaw.begin() + first))
                    << int(kind) << " raw at " << first;
                ASSERT_TRUE(std::equal(pieceFiltered.begin(), pieceFiltered.end(), wholeFiltered.begin() + first))
                    << int(kind) << " filtered at " << first;
            }
        }
    }
}

struct ChainCase {
    const char* name;
    double clock;
    uint64_t ratio;
    uint32_t halfBands;
    double rate;
    double delayTicks;
};

class Chain : public testing::TestWithParam<ChainCase> {};

TEST_P(Chain, delaysAndPassesASineInItsBand) {
    const ChainCase& p = GetParam();
    const StreamFormat format = StreamFormat::lowPassed(p.clock, p.ratio, p.halfBands, usualFilter());
    EXPECT_DOUBLE_EQ(p.rate, format.rate());
    const double hertz = 0.11 * p.rate;
    const Signal signal(source(WaveformKind::Sine, hertz, 10000.0, 500.0, 0.3), format);
    const uint64_t first = 1000;
    const auto samples = samplesOf<int32_t>(signal, first, 500);
    for (size_t i = 0; i < samples.size(); ++i) {
        const Real time = static_cast<Real>(first + i) / p.rate - p.delayTicks / static_cast<Real>(p.clock);
        const Real value = 65536.0L * (500.0L + 10000.0L * std::sin(2 * pi * hertz * time + 0.3L));
        // The pass band's ripple is some 3e-5 in each stage, of 6.6e8 counts.
        ASSERT_NEAR(static_cast<double>(value), samples[i], 65536.0) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, Chain,
                         testing::Values(ChainCase{"1875k", 15e6, 0, 1, 1875000.0, 349.0},
                                         ChainCase{"1M", 15e6, ratio1M, 1, 1e6, 606.25},
                                         ChainCase{"50k", 15e6, 47244640256, 6, 50000.0, 12315.15625},
                                         ChainCase{"100", 15e6, 39694893056, 15, 100.0, 6150016.0},
                                         ChainCase{"2Mon10M", 10e6, uint64_t(0x10) << 32, 0, 2e6, 217.5},
                                         ChainCase{"16kOn10M", 10e6, 60666413056, 7, 16000.0, 25638.5}),
                         [](const auto& info) { return info.param.name; });

double peak(const std::vector<int32_t>& samples) {
    double highest = 0.0;
    for (const int32_t sample : samples) {
        highest = std::max(highest, std::fabs(static_cast<double>(sample)) / 65536.0);
    }
    return highest;
}

TEST(Waveforms, filterEndsAtHalfTheRate) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter());
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
    EXPECT_DOUBLE_EQ(1000.0, level(usualFilter()));
    EXPECT_DOUBLE_EQ(0.0, level(HalfBand{})) << "never written";
    HalfBand centreOnly;
    centreOnly.coefficients[32] = 33554432;
    EXPECT_DOUBLE_EQ(500.0, level(centreOnly));
}

TEST(Waveforms, filteredStreamSettlesFromNothing) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter());
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

TEST(Waveforms, squareAndRampOnTheRawStream) {
    const StreamFormat format = StreamFormat::raw(15e6, 15000, 0xFFFFFFFF);
    const auto square = samplesOf<int16_t>(Signal(source(WaveformKind::Square, 50.0, 1000.0, 10.0), format), 20, 20);
    for (size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(i < 10 ? 1010 : -990, square[i]) << i;
    }
    const auto ramp = samplesOf<int16_t>(Signal(source(WaveformKind::Ramp, 50.0, 1000.0, 10.0), format), 40, 20);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(-990 + 100 * i, ramp[static_cast<size_t>(i)]) << i;
    }
}

// The same where no table can hold the period: beyond the first block, far from the start.
TEST(Waveforms, squareAndRampWithoutAPeriod) {
    const StreamFormat format = StreamFormat::raw(15e6, 1, 0xFFFFFFFF);
    constexpr double hertz = 98765.4321;
    constexpr uint64_t first = 6480000000000 + 500;
    const auto square = samplesOf<int16_t>(Signal(source(WaveformKind::Square, hertz, 1000.0), format), first, 3000);
    const auto ramp = samplesOf<int16_t>(Signal(source(WaveformKind::Ramp, hertz, 30000.0), format), first, 3000);
    for (size_t i = 0; i < square.size(); ++i) {
        const Real place = std::fmod(static_cast<Real>(first + i) * static_cast<Real>(hertz) / 15e6L, 1.0L);
        if (place > 1e-6L && place < 1.0L - 1e-6L && std::fabs(place - 0.5L) > 1e-6L) {
            ASSERT_EQ(place < 0.5L ? 1000 : -1000, square[i]) << i;
            ASSERT_NEAR(static_cast<double>(30000.0L * (2.0L * place - 1.0L)), ramp[i], 0.51) << i;
        }
    }
}

// Fourier coefficient of a stream: amplitude of harmonic `cycles` in the samples.
double harmonic(const std::vector<int32_t>& samples, double cycles) {
    double sine = 0.0;
    double cosine = 0.0;
    for (size_t n = 0; n < samples.size(); ++n) {
        const double angle =
            2.0 * std::numbers::pi * cycles * static_cast<double>(n) / static_cast<double>(samples.size());
        sine += samples[n] * std::sin(angle);
        cosine += samples[n] * std::cos(angle);
    }
    return 2.0 * std::hypot(sine, cosine) / static_cast<double>(samples.size()) / 65536.0;
}

TEST(Waveforms, filteredSquareHasItsHarmonicsAndNoAliases) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter());
    // 40 kHz at 1 MHz; the second one never repeats exactly and takes the other way through the code.
    for (const double hertz : {40000.0, 40000.0 + 1e-7}) {
        const Signal signal(source(WaveformKind::Square, hertz, 10000.0), format);
        const auto samples = samplesOf<int32_t>(signal, 1000, 5000);
        for (int k = 1; k <= 11; k += 2) {
            const double expected = 4.0 / std::numbers::pi * 10000.0 / k;
            EXPECT_NEAR(1.0, harmonic(samples, 200.0 * k) / expected, 0.001) << k;
        }
        // Harmonic 15 is at 600 kHz and would fold to 400 kHz, harmonic 19 to 240 kHz.
        EXPECT_LT(harmonic(samples, 200.0 * 10), 10.0);
        EXPECT_LT(harmonic(samples, 200.0 * 6), 10.0);
    }
}

TEST(Waveforms, filteredRampRisesEvenlyBetweenItsSteps) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter());
    const Signal signal(source(WaveformKind::Ramp, 1000.0, 10000.0), format);
    const auto samples = samplesOf<int32_t>(signal, 1000, 1000);
    // 40.4167 samples late; in the middle of the period the step is out of reach.
    for (size_t n = 100; n < 950; ++n) {
        const double phase = (static_cast<double>(n) - 606.25 / 15.0) / 1000.0;
        ASSERT_NEAR(65536.0 * 10000.0 * (2.0 * phase - 1.0), samples[n], 2.0) << n;
    }
}

TEST(Waveforms, noiseIsReproducibleUniformAndDifferentInEachSlot) {
    const StreamFormat format = StreamFormat::raw(15e6, 1, 0xFFFFFFFF);
    SignalSource here = source(WaveformKind::Noise, 0.0, 1000.0, 50.0);
    const auto samples = samplesOf<int16_t>(Signal(here, format), 0, 100000);
    double sum = 0.0;
    double squares = 0.0;
    for (const int16_t sample : samples) {
        ASSERT_LE(std::abs(sample - 50), 1000);
        sum += sample - 50.0;
        squares += (sample - 50.0) * (sample - 50.0);
    }
    EXPECT_NEAR(0.0, sum / 1e5, 10.0);
    EXPECT_NEAR(1000.0 / std::sqrt(3.0), std::sqrt(squares / 1e5), 5.0);
    EXPECT_EQ(samples, samplesOf<int16_t>(Signal(here, format), 0, 100000));
    here.seed = 43;
    const auto other = samplesOf<int16_t>(Signal(here, format), 0, 100000);
    double product = 0.0;
    for (size_t i = 0; i < samples.size(); ++i) {
        product += (samples[i] - 50.0) * (other[i] - 50.0);
    }
    EXPECT_LT(std::fabs(product / 1e5), 0.02 * squares / 1e5);
}

TEST(Waveforms, filteredNoiseHasTheBandsShareOfThePower) {
    const StreamFormat format = StreamFormat::lowPassed(15e6, ratio1M, 1, usualFilter());
    const auto samples = samplesOf<int32_t>(Signal(source(WaveformKind::Noise, 0, 3000.0), format), 1000, 100000);
    double squares = 0.0;
    for (const int32_t sample : samples) {
        squares += std::pow(sample / 65536.0, 2);
    }
    EXPECT_NEAR(3000.0 / std::sqrt(3.0 * 15.0), std::sqrt(squares / 1e5), 5.0);
}

void put(std::string& bytes, uint32_t value, int size) {
    for (int i = 0; i < size; ++i) {
        bytes += static_cast<char>(value >> (8 * i));
    }
}

std::string waveFile(uint32_t format, uint32_t channels, uint32_t bits, const std::vector<int16_t>& samples) {
    std::string data;
    for (const int16_t sample : samples) {
        put(data, static_cast<uint16_t>(sample), 2);
    }
    std::string bytes = "RIFF";
    put(bytes, static_cast<uint32_t>(4 + 24 + 12 + 8 + data.size()), 4);
    bytes += "WAVEfmt ";
    put(bytes, 16, 4);
    put(bytes, format, 2);
    put(bytes, channels, 2);
    put(bytes, 44100, 4);
    put(bytes, 44100 * channels * 2, 4);
    put(bytes, channels * 2, 2);
    put(bytes, bits, 2);
    bytes += "LIST";
    put(bytes, 3, 4);
    bytes += std::string("abc\0", 4);
    bytes += "data";
    put(bytes, static_cast<uint32_t>(data.size()), 4);
    return bytes + data;
}

class WavTest : public testing::Test {
protected:
    WavTest()
        : file_((std::filesystem::temp_directory_path() / ("kestrix-wave-" + std::to_string(getpid()))).string()) {
    }
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
    rig.open(0, Stream::Raw, 8);
    rig.open(0, Stream::Filtered, 8);
    rig.enable(0, true, true);
    rig.start(0, Stream::Raw);
    rig.start(0, Stream::Filtered);
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

TEST(Waveforms, changeWhileRunningKeepsThePlaceInTheStream) {
    Rig rig(Scenario::counters(1));
    rig.raw(0, 15000);
    rig.open(0, Stream::Raw, 20);
    rig.enable(0, true, false);
    rig.start(0, Stream::Raw);
    rig.convert(1);
    rig.now += 0.01;
    EXPECT_EQ(9, rig.read<int16_t>(0, Stream::Raw, 20).back());
    Waveform constant;
    constant.kind = WaveformKind::Constant;
    constant.offset = -1234.4;
    rig.instrument.setWaveform(0, constant);
    rig.now += 0.01;
    EXPECT_EQ(-1234, rig.read<int16_t>(0, Stream::Raw, 20).back());
    rig.instrument.plug(Scenario::counters(1).modules[0]);
    rig.now += 0.01;
    EXPECT_EQ(29, rig.read<int16_t>(0, Stream::Raw, 20).back());
    rig.instrument.unplug(0);
    rig.now += 0.01;
    EXPECT_EQ(0, rig.read<int16_t>(0, Stream::Raw, 20).back());
}

}  // namespace
