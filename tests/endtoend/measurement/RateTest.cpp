#include <gtest/gtest.h>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/RateMath.h"
#include "tools/zornhost/Rates.h"

using namespace kestrixsim;
using namespace Harvane::RT::Core;

namespace {

uint64_t dspWord(int module, uint64_t offset) {
    return 0xA0000000 + (static_cast<uint64_t>(module) << 16) + offset;
}

int64_t rateOf(const zornhost::HostTree& tree, const std::string& path) {
    return fromValue<Ratio>(tree.property(path).owner.node.getPropertyValue<BasePtr>("SampleRate")).numerator;
}

}  // namespace

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

TEST(RateMath, HasNoChainForOtherRates) {
    for (const int rate : {2000000, 7, 0, 136459}) {  // the last one is exact in double precision only
        EXPECT_FALSE(zornhost::filterChain(15000000, rate)) << rate;
    }
    EXPECT_EQ(zornhost::filterChain(15000000, 10)->halfBands, 0u);
    EXPECT_EQ(zornhost::filterChain(15000000, 10)->ratioBits, 118338093056u);
    EXPECT_EQ(zornhost::divisorsOf(9), (std::vector<int64_t>{1, 3, 9}));
    EXPECT_TRUE(zornhost::divisorsOf(0).empty());
}
