#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <numbers>

#include "tests/endtoend/measurement/Bench.h"

using namespace kestrixsim;

namespace {

class CounterRecording : public testing::TestWithParam<int> {};

}  // namespace

// Every sample between the converter and the file, at the rates that stress the sizes of descriptors and rings.
TEST_P(CounterRecording, IsGaplessAndExact) {
    const int rate = GetParam();
    Bench bench(Scenario::counters(2), {"SampleRate=" + std::to_string(rate)});
    bench.session().open();
    const auto report = bench.record("counter.h5", 2.5);
    EXPECT_TRUE(report.good()) << report.verdict();

    const RecordingReader file(bench.file("counter.h5"));
    ASSERT_EQ(file.channels().size(), 4u);
    for (int module = 0; module < 2; ++module) {
        const auto raw = file.samples<int16_t>(channelPath(module, false));
        const auto filtered = file.samples<int32_t>(channelPath(module, true));
        EXPECT_EQ(firstWrong(raw), -1);
        EXPECT_EQ(firstWrong(filtered), -1);
        // Samples come in descriptors of an eighth of a second at most.
        EXPECT_NEAR(static_cast<double>(raw.size()), report.durationS * rate, 0.13 * rate + 0.1 * rate);
        EXPECT_NEAR(static_cast<double>(filtered.size()), report.durationS * rate, 0.13 * rate + 0.1 * rate);
        EXPECT_EQ(file.number(channelPath(module, false), "sample_rate"), rate);
    }
    EXPECT_EQ(file.gapRows(), 0u);
    EXPECT_EQ(file.number("", "complete"), 1.0);
}

INSTANTIATE_TEST_SUITE_P(Rates, CounterRecording, testing::Values(100, 1000, 46875, 50000, 1000000));

TEST(Recording, OfAWavFileIsThatFile) {
    const char* wav = "/usr/share/sounds/alsa/Front_Center.wav";
    std::ifstream stream(wav, std::ios::binary);
    ASSERT_TRUE(stream) << wav << " is missing";
    const std::string bytes((std::istreambuf_iterator<char>(stream)), {});
    const size_t data = bytes.find("data");
    ASSERT_NE(data, std::string::npos);
    uint32_t size = 0;
    std::memcpy(&size, bytes.data() + data + 4, 4);
    std::vector<int16_t> sound(size / 2);
    std::memcpy(sound.data(), bytes.data() + data + 8, sound.size() * 2);

    auto scenario = Scenario::counters(1);
    scenario.modules[0].waveform.kind = WaveformKind::Wav;
    scenario.modules[0].waveform.file = wav;
    Bench bench(scenario, {"SampleRate=50000"});
    bench.session().open();
    const auto report = bench.record("wav.h5", 2.5, {"*Raw input"});
    EXPECT_TRUE(report.good()) << report.verdict();
    const auto samples = RecordingReader(bench.file("wav.h5")).samples<int16_t>(channelPath(0, false));
    ASSERT_GT(samples.size(), sound.size());
    EXPECT_TRUE(std::equal(sound.begin(), sound.end(), samples.begin()));
    // It loops.
    EXPECT_TRUE(std::equal(sound.begin(), sound.begin() + 1000, samples.begin() + static_cast<long>(sound.size())));
}

namespace {

// Frequency of a sine by the phase between the first and the last quarter of the samples, in Hz.
template <class T>
double frequencyOf(const std::vector<T>& samples, double rate, double nearHz) {
    const size_t quarter = samples.size() / 4;
    const double cycles = nearHz / rate;
    const auto phase = [&](size_t begin) {
        double re = 0.0;
        double im = 0.0;
        for (size_t i = begin; i < begin + quarter; ++i) {
            // A Hann window keeps the neighbours out; the remainder is taken first, for its digits.
            const double window =
                1.0 - std::cos(2.0 * std::numbers::pi * static_cast<double>(i - begin) / static_cast<double>(quarter));
            const double angle = 2.0 * std::numbers::pi * std::fmod(cycles * static_cast<double>(i), 1.0);
            re += window * static_cast<double>(samples[i]) * std::cos(angle);
            im -= window * static_cast<double>(samples[i]) * std::sin(angle);
        }
        return std::atan2(im, re);
    };
    const size_t distance = 3 * quarter;
    double turn = phase(distance) - phase(0);
    turn = std::remainder(turn, 2.0 * std::numbers::pi);
    return nearHz + turn / (2.0 * std::numbers::pi) * rate / static_cast<double>(distance);
}

}  // namespace

TEST(Recording, OfASineHasItsFrequency) {
    auto scenario = Scenario::counters(1);
    scenario.modules[0].waveform.kind = WaveformKind::Sine;
    scenario.modules[0].waveform.frequencyHz = 997.0;
    scenario.modules[0].waveform.amplitude = 12000.0;
    Bench bench(scenario, {"SampleRate=50000"});
    bench.session().open();
    const auto report = bench.record("sine.h5", 2.5);
    EXPECT_TRUE(report.good()) << report.verdict();
    const RecordingReader file(bench.file("sine.h5"));
    const auto raw = file.samples<int16_t>(channelPath(0, false));
    const auto filtered = file.samples<int32_t>(channelPath(0, true));
    const double rawHz = frequencyOf(raw, file.number(channelPath(0, false), "sample_rate"), 997.0);
    EXPECT_NEAR(rawHz / 997.0, 1.0, 10e-6);
    EXPECT_NEAR(frequencyOf(filtered, file.number(channelPath(0, true), "sample_rate"), 997.0) / 997.0, 1.0, 10e-6);
    // In counts as the scenario gave them, and 65536 times as many on the filtered stream.
    EXPECT_NEAR(*std::max_element(raw.begin(), raw.end()), 12000.0, 40.0);
    EXPECT_NEAR(*std::max_element(filtered.begin(), filtered.end()) / 65536.0, 12000.0, 40.0);
}

// What the instrument says of itself stands beside the samples, each value with its time.
TEST(Recording, HasTheStatusChannels) {
    auto scenario = Scenario::counters(2);
    scenario.boardType = 1;
    scenario.canPorts = 0;
    scenario.thermals.cableCelsius = -12.5;
    scenario.thermals.cable1 = true;
    Bench bench(scenario, {"SampleRate=10000"});
    bench.session().open();
    const std::string folder = "KESTRIX/Statuses/";
    const auto report = bench.record("status.h5", 5.5);
    EXPECT_TRUE(report.good()) << report.verdict();
    EXPECT_NE(report.verdict().find(" of 7 asynchronous channels."), std::string::npos) << report.verdict();
    const RecordingReader file(bench.file("status.h5"));
    EXPECT_EQ(file.channels().size(), 4u) << "the analog ones";
    const struct {
        const char* name;
        double value;  // the last one
        double within;
        bool eachCycle;
    } rows[] = {{"CPU temperature", bench.instrument().processorCelsius() + 0.8, 1.5, false},
                {"Motherboard temperature", bench.instrument().boardCelsius() + 2.75, 0.5, false},
                {"Phase error", 0.0, 3.0, true},
                {"VCXO value", 506.0, 1.0, true},
                {"Cable detect 1", 1.0, 0.0, true},
                {"Cable detect 2", 0.0, 0.0, true},
                {"Cable temperature", -12.5, 0.001, false}};
    for (const auto& row : rows) {
        const auto values = file.values(folder + row.name);
        const auto reported = std::ranges::find(report.asyncChannels, folder + row.name, &zornhost::AsyncReport::path);
        ASSERT_NE(reported, report.asyncChannels.end());
        EXPECT_EQ(values.size(), reported->frames) << row.name;
        ASSERT_GE(values.size(), row.eachCycle ? 300u : 2u) << row.name;
        EXPECT_LE(values.size(), row.eachCycle ? 700u : 3u) << row.name;
        EXPECT_NEAR(values.back()[1], row.value, row.within) << row.name;
        for (size_t i = 1; i < values.size(); ++i) {
            EXPECT_GT(values[i][0] - values[i - 1][0], row.eachCycle ? 0.0 : 2.4) << row.name;
        }
        EXPECT_GE(values.front()[0], 0.0);
        EXPECT_LE(values.back()[0], report.durationS + 0.2) << row.name;
        EXPECT_GE(values.back()[0], report.durationS - (row.eachCycle ? 0.5 : 3.5)) << row.name;
    }
    EXPECT_EQ(file.number(folder + "Cable temperature", "range_min"), -200.0);
    EXPECT_EQ(file.text(folder + "VCXO value", "name"), "VCXO value");

    // Nothing but status, and a line that can't be read for a while.
    const auto line = [&] { bench.instrument().inject({.kind = FaultKind::SensorMissing, .target = 13, .times = 5}); };
    const auto alone = bench.record("alone.h5", 1.0, {"Cable detect *"}, line);
    EXPECT_FALSE(alone.good());
    EXPECT_EQ(alone.lost(), 5u);
    EXPECT_NE(alone.verdict().find("Cable detect 1 lost 5 samples."), std::string::npos) << alone.verdict();
    EXPECT_EQ(RecordingReader(bench.file("alone.h5")).gapRows(), 1u);
}
