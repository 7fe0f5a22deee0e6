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
            EXPECT_FALSE(session.host().canUnload());
        }
        session.close();
        EXPECT_TRUE(session.host().canUnload());
        EXPECT_FALSE(session.host().isOpen());
        EXPECT_EQ(openDescriptors(), 0);
    }
}

TEST(Lifecycle, UnloadWithoutARunAndWithoutAStop) {
    {
        Bench bench(Scenario::counters(1));
        bench.session().open();
        bench.session().close();
        EXPECT_TRUE(bench.session().host().canUnload());
    }
    {
        // Closing in the middle of an acquisition stops it first.
        Bench bench(Scenario::counters(1), {"SampleRate=20000"});
        bench.session().open();
        bench.use();
        bench.session().prepare();
        bench.session().start();
        bench.session().close();
        EXPECT_TRUE(bench.session().host().canUnload());
    }
    EXPECT_EQ(openDescriptors(), 0);
}

TEST(Lifecycle, ReopenAfterAFailedAdd) {
    auto scenario = Scenario::counters(1);
    scenario.faults = {{.kind = FaultKind::MemOpen, .times = 1}};
    Bench bench(scenario, {"SampleRate=20000"});
    auto& session = bench.session();
    try {
        session.open();
        FAIL() << "add must fail without /dev/mem";
    } catch (const std::exception& failure) {
        EXPECT_NE(std::string(failure.what()).find("Failed to open device handle."), std::string::npos) << failure.what();
    }
    session.close();
    session.open();
    const auto report = bench.record("again.h5", 0.4);
    EXPECT_TRUE(report.good()) << report.verdict();
}

TEST(Lifecycle, ClockAdvancesWithTheSamples) {
    Bench bench(Scenario::counters(1), {"SampleRate=20000"});
    auto& session = bench.session();
    session.open();
    bench.use();
    session.prepare();
    long before = 0;
    ASSERT_EQ(session.host().clockProvider()->getCurrentClock(&before), 0u);
    EXPECT_EQ(before, -1000000000);
    session.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    long running = 0;
    ASSERT_EQ(session.host().clockProvider()->getCurrentClock(&running), 0u);
    EXPECT_GT(running, 400000000);
    EXPECT_LT(running, 1500000000);
    session.stop();
}
