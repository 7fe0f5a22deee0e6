#include <gtest/gtest.h>

#include <limits>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/ClockCheck.h"

// What gets lost must not get lost in silence.
using namespace kestrixsim;

// A writer that comes after the ring has gone round: with a file and without one the same samples are missing.
TEST(Recorder, LateWriterCountsWhatItMissed) {
    for (const bool kept : {true, false}) {
        Bench bench(Scenario::counters(1), {"SampleRate=50000"});
        auto& session = bench.session();
        session.open();
        const auto channels = bench.use({"AI 1/Raw input"});
        session.prepare();
        const std::string name = kept ? bench.file("late.h5") : "/dev/null";
        zornhost::Recorder recorder({name}, channels, session.host().scheduler());
        const auto& channel = channels[0].channel;
        const auto capacity = static_cast<long>(channel.getBuffer().getCapacity());
        session.start();
        while (channel.getSamplesAcquired() < capacity + 20000) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        recorder.start(0);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        session.stop();
        const auto report = recorder.finish(false);
        EXPECT_FALSE(report.good());
        EXPECT_EQ(report.keeps, kept);
        ASSERT_EQ(report.gapTable.size(), 1u) << report.verdict();
        const auto lost = report.gapTable[0].length;
        EXPECT_EQ(report.gapTable[0].firstIndex, 0u);
        EXPECT_FALSE(report.gapTable[0].estimated);
        EXPECT_GE(lost, 20000u);
        EXPECT_EQ(report.samples() + report.lost(), static_cast<uint64_t>(channel.getSamplesAcquired()));
        EXPECT_NE(report.verdict().find(" LOST in 1 gap."), std::string::npos) << report.verdict();
        EXPECT_GT(report.worstFill(), 1.0);
        if (!kept) {
            continue;
        }
        const RecordingReader file(name);
        EXPECT_EQ(file.gapRows(), 1u);
        const auto samples = file.samples<int16_t>(channelPath(0, false));
        ASSERT_EQ(samples.size(), report.samples() + lost);
        for (size_t i = 0; i < samples.size(); ++i) {
            ASSERT_EQ(samples[i], i < lost ? std::numeric_limits<int16_t>::min() : static_cast<int16_t>(i)) << i;
        }
    }
}

TEST(Recorder, StreamsThatNeverComeAreLost) {
    auto scenario = Scenario::counters(1);
    scenario.faults = {{.kind = FaultKind::DmaStall, .target = 0, .times = -1},
                       {.kind = FaultKind::DmaStall, .target = 1, .times = -1}};
    Bench bench(scenario, {"SampleRate=10000"});
    bench.session().open();
    const auto report = bench.record("nothing.h5", 1.5);
    EXPECT_FALSE(report.good()) << report.verdict();
    EXPECT_EQ(report.samples(), 0u);
    EXPECT_EQ(RecordingReader(bench.file("nothing.h5")).gapRows(), 2u);
}

// Blocks of 100 ms, read every 10 ms, by a clock that is 50 ppm off; then what is given happens after 4 s.
TEST(Recorder, ClockShowsWhatTheStreamDoesNot) {
    struct Case {
        const char* name;
        double missingS;
        double pauseS;  // the reader doesn't look
        bool seen;
    };
    for (const auto& entry : {Case{"nothing", 0.0, 0.0, false}, Case{"three blocks", 0.3, 0.0, true},
                              Case{"a late reader", 0.0, 0.8, false}, Case{"ten seconds", 10.0, 0.0, true}}) {
        SCOPED_TRACE(entry.name);
        zornhost::ClockCheck check(10000.0);
        uint64_t missing = 0;
        for (double timeS = 0.0; timeS < 20.0; timeS += 0.01) {
            if (timeS > 4.0 && timeS < 4.0 + entry.pauseS) {
                continue;
            }
            const double streamS = timeS * 1.00005 - (timeS > 4.0 ? std::min(entry.missingS, timeS - 4.0) : 0.0);
            missing += check.observe(timeS, static_cast<uint64_t>(streamS * 10.0) * 1000).value_or(0);
        }
        EXPECT_NEAR(static_cast<double>(missing), entry.missingS * 10000.0, entry.seen ? 1500.0 : 0.0);
    }
}
