#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/RateMath.h"
#include "tools/zornhost/Rates.h"

using namespace kestrixsim;
using namespace Harvane::RT::Core;

namespace {

constexpr uint64_t pllWord = 0xB0000000;

uint64_t dspWord(int module, uint64_t offset) {
    return 0xA0000000 + (static_cast<uint64_t>(module) << 16) + offset;
}

int64_t rateOf(const zornhost::HostTree& tree, const std::string& path) {
    return fromValue<Ratio>(tree.property(path).owner.node.getPropertyValue<BasePtr>("SampleRate")).numerator;
}

}  // namespace

// From the choice of a clock to the samples in the file: supply, oscillator script, PLL, amplifiers, rates, streams.
TEST(Rates, AtTheOtherClockEverythingFollows) {
    auto scenario = Scenario::counters(2);
    scenario.slots = 2;
    Bench bench(scenario);
    auto& session = bench.session();
    session.open();
    const auto tree = session.tree();
    EXPECT_EQ(bench.instrument().registerWord(pllWord) >> 1 & 3, 0u);
    EXPECT_EQ(rateOf(tree, "SampleRate"), 1000);

    EXPECT_EQ(fromValue<int>(session.set(tree.property("KESTRIX/BaseClock"), "10000000")), 1);
    EXPECT_EQ(bench.instrument().registerWord(pllWord) >> 1 & 3, 1u);
    EXPECT_EQ(bench.instrument().commandsRun().back(), "/opt/harvane/scripts/vcxo_control.sh set_clock 10");
    EXPECT_EQ(rateOf(tree, "SampleRate"), 1000);

    // 500000 raw and 16000 filtered are a quarter and a 125th of the system's rate. 15 MHz could do neither 16000 nor
    // 2 MHz.
    session.set(tree.property("SampleRate"), "2000000");
    session.set(tree.property(channelPath(0, false) + "/SampleRate"), "500000");
    session.set(tree.property(channelPath(0, true) + "/SampleRate"), "16000");
    session.set(tree.property(channelPath(1, true) + "/SampleRate"), "16000");

    const auto report = bench.record("clock.h5", 2.5, {"AI 1/*", "AI 2/Filtered input"});
    EXPECT_TRUE(report.good()) << report.verdict();
    const RecordingReader file(bench.file("clock.h5"));
    ASSERT_EQ(file.channels().size(), 3u);
    for (const auto& [path, rate] : {std::pair{channelPath(0, false), 500000.0},
                                     {channelPath(0, true), 16000.0},
                                     {channelPath(1, true), 16000.0}}) {
        EXPECT_EQ(file.number(path, "sample_rate"), rate) << path;
        // Samples come in descriptors of an eighth of a second; half as much again at the end.
        EXPECT_NEAR(static_cast<double>(file.count(path)), report.durationS * rate, 0.23 * rate) << path;
    }
    EXPECT_EQ(firstWrong(file.samples<int16_t>(channelPath(0, false))), -1);
    EXPECT_EQ(firstWrong(file.samples<int32_t>(channelPath(0, true))), -1);
    EXPECT_EQ(file.gapRows(), 0u);
}

// The program knows the instrument's arithmetic by its formula. What the module writes into the instrument must agree.
TEST(Rates, TheProgramsTableIsWhatTheInstrumentGets) {
    auto scenario = Scenario::counters(1);
    scenario.slots = 1;
    Bench bench(scenario);
    auto& session = bench.session();
    session.open();
    const auto tree = session.tree();
    for (const int rate : {100, 16000, 46875, 50000, 1000000, 1875000}) {
        session.set(tree.property("SampleRate"), std::to_string(rate));
        const int64_t inForce = rateOf(tree, "SampleRate");
        const auto report = zornhost::legalRates(tree, std::nullopt, 2);
        ASSERT_FALSE(report.levels.empty());
        const auto& system = report.levels.front().rates;
        const auto row = std::find_if(system.begin(), system.end(),
                                      [&](const zornhost::LegalRate& each) { return each.rate == inForce; });
        ASSERT_NE(row, system.end()) << rate;
        EXPECT_TRUE(row->rawInForce);
        ASSERT_TRUE(row->rawDivider && row->filtered) << rate;
        bench.use();
        session.prepare();
        session.start();
        EXPECT_EQ(bench.instrument().registerWord(dspWord(0, 0x10C)), *row->rawDivider) << rate;
        EXPECT_EQ(bench.instrument().registerWord(dspWord(0, 0x108)) & 0x1F, row->filtered->halfBands) << rate;
        EXPECT_EQ(static_cast<uint64_t>(bench.instrument().registerWord(dspWord(0, 0x104)) & 0x3F) << 32 |
                      bench.instrument().registerWord(dspWord(0, 0x100)),
                  row->filtered->ratioBits)
            << rate;
        session.stop();
    }
}

TEST(RateMath, ChainsAndLimits) {
    EXPECT_EQ(zornhost::fastestFilteredRate(15000000), 1875000);
    EXPECT_EQ(zornhost::fastestFilteredRate(10000000), 2000000);
    EXPECT_EQ(zornhost::divisorsOf(12), (std::vector<int64_t>{1, 2, 3, 4, 6, 12}));
    EXPECT_EQ(zornhost::divisorsOf(9), (std::vector<int64_t>{1, 3, 9}));
    EXPECT_TRUE(zornhost::divisorsOf(0).empty());
    EXPECT_FALSE(zornhost::filterChain(15000000, 2000000));
    EXPECT_FALSE(zornhost::filterChain(15000000, 7));
    EXPECT_FALSE(zornhost::filterChain(15000000, 0));
    EXPECT_FALSE(zornhost::filterChain(15000000, 136459));  // exact in double precision only
    EXPECT_EQ(zornhost::filterChain(15000000, 1875000)->halfBands, 1u);
    EXPECT_EQ(zornhost::filterChain(15000000, 1875000)->ratioBits, 0u);
    EXPECT_EQ(zornhost::filterChain(15000000, 10)->halfBands, 0u);
    EXPECT_EQ(zornhost::filterChain(15000000, 10)->ratioBits, 118338093056u);
}
