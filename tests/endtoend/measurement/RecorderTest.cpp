#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <tuple>

#include "tests/endtoend/measurement/Bench.h"
#include "tools/zornhost/ClockCheck.h"

// What gets lost must not get lost in silence.
using namespace kestrixsim;
using namespace Harvane::RT::Core;

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
        session.start();
        const auto capacity = static_cast<long>(channel.getBuffer().getCapacity());
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
    for (const double seconds : {0.05, 1.5}) {
        const auto report = bench.record("nothing.h5", seconds);
        EXPECT_FALSE(report.good()) << report.verdict();
        EXPECT_EQ(report.samples(), 0u);
        EXPECT_EQ(report.verdict().find("none lost"), std::string::npos) << report.verdict();
        EXPECT_EQ(RecordingReader(bench.file("nothing.h5")).gapRows(), 2u);
    }
    // A channel that keeps no memory for samples is in use all the same; with nothing else there is no recording.
    bench.use();
    bench.session().prepare();
    const auto channels = bench.session().tree().channels({"AI 1/*"});
    channels[0].channel.setPropertyValue("ShouldReserveMemory", false);
    zornhost::Recorder recorder({"/dev/null"}, channels, bench.session().host().scheduler());
    EXPECT_EQ(recorder.channelCount(), 2u);
    channels[1].channel.setUsed(false);
    EXPECT_THROW(zornhost::Recorder({"/dev/null"}, channels, bench.session().host().scheduler()),
                 zornhost::RecordingError);
}

// 142 samples a second are shown where the clock gives 1000/7. Times, lengths and the file go by what is.
TEST(Recorder, GoesByTheExactRate) {
    Bench bench(Scenario::counters(1));
    auto& session = bench.session();
    session.open();
    session.set(session.tree().property(channelPath(0, false) + "/SampleRate"), "150");
    const auto channel = session.tree().channels({"AI 1/Raw input"})[0].channel;
    EXPECT_EQ(channel.getSampleRate(), (Ratio{142, 1}));
    if (!channel.hasProperty("ExactSampleRate")) {
        channel.setPropertyValue("ExactSampleRate", Ratio{15000000, 105000});
    }
    const auto report = bench.record("exact.h5", 3.0);
    EXPECT_TRUE(report.good()) << report.verdict();
    EXPECT_EQ(report.channels[0].sampleRate, (Ratio{1000, 7}));
    EXPECT_EQ(report.channels[1].sampleRate, (Ratio{1000, 1})) << "the rate shown, in lowest terms";
    const RecordingReader file(bench.file("exact.h5"));
    for (const auto& [path, rate, numerator, denominator] :
         {std::tuple{channelPath(0, false), 1000.0 / 7.0, 1000.0, 7.0}, {channelPath(0, true), 1000.0, 1000.0, 1.0}}) {
        EXPECT_DOUBLE_EQ(file.number(path, "sample_rate"), rate);
        EXPECT_EQ(file.number(path, "sample_rate_numerator"), numerator);
        EXPECT_EQ(file.number(path, "sample_rate_denominator"), denominator);
    }
    bench.instrument().inject({.kind = FaultKind::DmaStall, .target = 0, .times = -1});
    const auto stalled = bench.record("stalled.h5", 2.0, {"AI 1/Raw input"});
    ASSERT_EQ(stalled.gapTable.size(), 1u);
    EXPECT_EQ(stalled.gapTable[0].length, static_cast<uint64_t>(stalled.durationS * (1000.0 / 7.0)));
}

// What an asynchronous channel says that it has lost is lost, and a channel that doesn't say it is no good news either.
TEST(Recorder, AsynchronousChannelsAreAskedForTheirLosses) {
    Scenario scenario = Scenario::counters(1);
    scenario.canPorts = 0;  // the test has its own
    Bench bench(scenario, {"SampleRate=10000"});
    auto& session = bench.session();
    session.open();
    int64_t lost = 0;
    const auto addChannel = [&](const char* name) {
        IChannel* raw = nullptr;
        checkErrorInfo(createAsyncChannel(&raw, StringPtr(name).get(), 0, 0.0));
        ChannelPtr<> channel(ObjectPtr<IChannel>::take(raw));
        channel.setName(name);
        channel.setSampleRate({100, 1});
        channel.setPropertyValue("Enabled", true);
        session.host().dataModule().getRootFolder().addChild(channel);
        return channel;
    };
    const auto counting = addChannel("CAN 1");
    addChannel("CAN 2");  // counts nothing
    counting.setPropertyValue("LostSamples", makeFunc([&](const BasePtr&, BasePtr& result) -> ErrCode {
                                  if (lost < 0) {
                                      return makeError(Errors::InvalidState, "the port is closed");
                                  }
                                  result = toValue(lost);
                                  return Errors::Success;
                              }));
    for (const auto& [loses, used] : {std::pair{0, true}, {7, true}, {7, false}, {-1, true}}) {
        SCOPED_TRACE(testing::Message() << loses << " " << used);
        lost = loses;
        const auto report =
            bench.record("async.h5", 0.3, used ? std::vector<std::string>{} : std::vector<std::string>{"AI 1/*"});
        const std::string verdict = report.verdict();
        EXPECT_EQ(report.good(), loses == 0 || !used) << verdict;
        EXPECT_EQ(std::count_if(report.asyncChannels.begin(), report.asyncChannels.end(),
                                [](const auto& channel) { return channel.label.starts_with("CAN "); }),
                  used ? 1 : 0);
        const RecordingReader file(bench.file("async.h5"));
        EXPECT_EQ(file.text("", "verdict"), verdict);
        if (!used) {
            continue;
        }
        EXPECT_EQ(report.lost(), loses > 0 ? 7u : 0u);
        EXPECT_EQ(file.gapRows(), loses > 0 ? 1u : 0u);
        EXPECT_EQ(verdict.find("none lost") == std::string::npos, loses != 0) << verdict;
        EXPECT_EQ(verdict.find("CAN 1 lost 7 samples.") != std::string::npos, loses > 0) << verdict;
        EXPECT_EQ(verdict.find("What CAN 1 lost is not known: the port is closed.") != std::string::npos, loses < 0)
            << verdict;
    }
}

// Blocks of 100 ms, read every 10 ms, by a clock that is 50 ppm off; then what is given happens after 4 s.
TEST(Recorder, ClockShowsWhatTheStreamDoesNot) {
    // pauseS: the reader doesn't look.
    const std::tuple<const char*, double, double, bool> rows[] = {{"nothing", 0.0, 0.0, false},
                                                                  {"three blocks", 0.3, 0.0, true},
                                                                  {"a late reader", 0.0, 0.8, false},
                                                                  {"ten seconds", 10.0, 0.0, true}};
    for (const auto& [name, missingS, pauseS, seen] : rows) {
        SCOPED_TRACE(name);
        zornhost::ClockCheck check(10000.0);
        uint64_t missing = 0;
        for (int step = 0; step < 2000; ++step) {
            const double timeS = step * 0.01;
            if (timeS > 4.0 && timeS < 4.0 + pauseS) {
                continue;
            }
            const double streamS = timeS * 1.00005 - (timeS > 4.0 ? std::min(missingS, timeS - 4.0) : 0.0);
            missing += check.observe(timeS, static_cast<uint64_t>(streamS * 10.0) * 1000).value_or(0);
        }
        EXPECT_NEAR(static_cast<double>(missing), missingS * 10000.0, seen ? 1500.0 : 0.0);
    }
}
