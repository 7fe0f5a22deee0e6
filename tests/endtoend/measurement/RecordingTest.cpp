#include <gtest/gtest.h>

#include <algorithm>

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
