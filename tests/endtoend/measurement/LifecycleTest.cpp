#include <gtest/gtest.h>

#include "tests/endtoend/measurement/Bench.h"

using namespace kestrixsim;

// The whole life twice in one process, the library unloaded in between; the sanitizers watch for what is left.
TEST(Lifecycle, TwoRunsThenUnloadTwice) {
    for (int life = 0; life < 2; ++life) {
        Bench bench(Scenario::counters(2), {"SampleRate=20000"});
        auto& session = bench.session();
        session.open();
        EXPECT_FALSE(session.host().canUnload());
        for (int run = 0; run < 2; ++run) {
            const auto report = bench.record("run.h5", 0.4);
            EXPECT_TRUE(report.good()) << report.verdict();
            // Each starts at 0 again.
            const auto samples = RecordingReader(bench.file("run.h5")).samples<int16_t>(channelPath(1, false));
            EXPECT_GT(samples.size(), 2000u);
            EXPECT_EQ(firstWrong(samples), -1);
            EXPECT_FALSE(session.host().canUnload());
        }
        session.close();
        EXPECT_TRUE(session.host().canUnload());
        EXPECT_FALSE(session.host().isOpen());
        EXPECT_EQ(openDescriptors(), 0);
    }
}
