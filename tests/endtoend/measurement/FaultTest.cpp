#include <gtest/gtest.h>

#include "tests/endtoend/measurement/Bench.h"
#include "tests/host/runtime/RecordingSink.h"

using namespace kestrixsim;

namespace {

struct OpenFault {
    const char* name;
    Fault fault;
    const char* words;  // what the user reads
};

class FailingOpen : public testing::TestWithParam<OpenFault> {};

std::string nameOf(const testing::TestParamInfo<OpenFault>& info) {
    return info.param.name;
}

}  // namespace

// What makes the instrument unusable is one readable line, and the process can try again.
TEST_P(FailingOpen, SaysWhyAndLeavesTheProcessUsable) {
    auto scenario = Scenario::counters(2);
    scenario.faults = {GetParam().fault};
    Bench bench(scenario, {"SampleRate=10000"});
    auto& session = bench.session();
    std::string text;
    try {
        session.open();
    } catch (const std::exception& failure) {
        text = failure.what();
    }
    EXPECT_NE(text.find(GetParam().words), std::string::npos) << "\"" << text << "\"";
    session.close();
    EXPECT_EQ(openDescriptors(), 0);
    bench.instrument().clearFaults();
    session.open();
    EXPECT_TRUE(bench.record("after.h5", 0.4).good());
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FailingOpen,
    testing::Values(
        OpenFault{"MemOpen", {.kind = FaultKind::MemOpen, .times = -1}, "Failed to open device handle."},
        OpenFault{"MemMap", {.kind = FaultKind::MemMap, .times = -1}, "Failed to map memory."},
        OpenFault{"I2cOpen", {.kind = FaultKind::I2cOpen, .times = -1}, "Failed to open device handle."},
        OpenFault{"EepromSilent", {.kind = FaultKind::EepromSilent, .times = -1}, "Failed to write to the file ("},
        OpenFault{"EepromShort", {.kind = FaultKind::EepromShortRead, .times = -1}, "Failed to read from the file("},
        OpenFault{"UartOpen", {.kind = FaultKind::UartOpen, .times = -1}, "Cannot open file"},
        OpenFault{"DmaOpen", {.kind = FaultKind::DmaOpen, .target = 3, .times = -1}, "Cannot open device file"},
        OpenFault{"DmaCount",
                  {.kind = FaultKind::DmaIoctl, .target = 0, .code = 0x40064C01, .times = -1},
                  "SET_BD_CNT ioctl error"},
        OpenFault{"DmaSize",
                  {.kind = FaultKind::DmaIoctl, .target = 1, .code = 0x40064C03, .times = -1},
                  "SET_BD_SIZE ioctl error"},
        OpenFault{"DmaReserve",
                  {.kind = FaultKind::DmaIoctl, .target = 0, .code = 0x40064C05, .times = -1},
                  "RESERVE_BD_MEM ioctl error"},
        OpenFault{"MuxStuck", {.kind = FaultKind::MuxReadsBack, .times = -1}, "unable to set amplifiers UART mux"}),
    nameOf);

// One failing read is logged and costs nothing: the samples are still in the driver's ring.
TEST(Faults, FailingReadIsLoggedAndTheCycleGoesOn) {
    const Harvane::RT::Core::RecordingSink log;
    Bench bench(Scenario::counters(1), {"SampleRate=20000"});
    bench.session().open();
    const auto report = bench.record(
        "eio.h5", 1.2, {}, [&] { bench.instrument().inject({.kind = FaultKind::DmaRead, .target = 0, .times = 3}); });
    EXPECT_GT(log.count("Exception in DAQ::acquireData: DMA device read failed"), 0)
        << testing::PrintToString(log.messages());
    EXPECT_TRUE(report.good()) << report.verdict();
    EXPECT_EQ(report.channels.size(), 2u);
}

// A stream that stands still while the others run is what the drift test is for.
TEST(Faults, StalledStreamIsReportedAsLostData) {
    const Harvane::RT::Core::RecordingSink log;
    Bench bench(Scenario::counters(1), {"SampleRate=20000"});
    bench.session().open();
    const auto report = bench.record("stall.h5", 5.0, {}, [&] {
        bench.instrument().inject({.kind = FaultKind::DmaStall, .target = 0, .times = -1});
    });
    EXPECT_GT(log.count("Exception in DAQ::acquireData: Data lost"), 0) << testing::PrintToString(log.messages());
    EXPECT_FALSE(report.good());
    EXPECT_GT(report.moduleReports, 0u);
    // One gap that grows, and at most a row a second of what the module says.
    EXPECT_GT(RecordingReader(bench.file("stall.h5")).gapRows(), 0u);
    EXPECT_LT(RecordingReader(bench.file("stall.h5")).gapRows(), 10u);
    EXPECT_NE(report.verdict().find("The module reported lost data"), std::string::npos);
}

// Nobody reads for longer than the driver's ring lasts: the driver drops, the stream carries no mark, and still the
// recording must not say that all is well.
TEST(Faults, CycleThatStandsStillShowsAsAGap) {
    Bench bench(Scenario::counters(1), {"SampleRate=15000000"});
    bench.session().open();
    const auto report = bench.record("overrun.h5", 8.0, {"AI 1/Raw input"}, [&] {
        bench.session().host().scheduler().stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(900));
        bench.session().host().scheduler().start();
    });
    EXPECT_GT(bench.instrument().statistics(0, Stream::Raw).samplesDropped, 0u);
    EXPECT_FALSE(report.good()) << report.verdict();
    EXPECT_GT(report.lost(), 0u) << report.verdict();
}
