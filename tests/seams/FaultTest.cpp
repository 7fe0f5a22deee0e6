#include <vector>

#include "tests/seams/Station.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;
using kestrixsim::Fault;

namespace {

constexpr int reserveRequest = 0x40064C05;
constexpr int sizeRequest = 0x40064C03;
constexpr int startRequest = 0x40064C08;
constexpr int stopRequest = 0x40064C09;
constexpr uint64_t adcEnableWord = 0xA0200000;

class SeamFaultTest : public testing::Test, protected Station {
protected:
    SeamFaultTest() {
        EXPECT_EQ(add(), "");
        use({raw(1), filtered(1), raw(2), filtered(2)});
        EXPECT_EQ(configure(), "");
        EXPECT_EQ(initialize(), "");
    }
    // Whatever failed: nothing is on, the module says so, and the next run is good.
    void expectWayBack() {
        EXPECT_EQ(phase(), Phase::Prepared);
        EXPECT_TRUE(isQuiet());
        EXPECT_TRUE(isRefusal(cycle(), Step::Cycle, Phase::Prepared));
        EXPECT_TRUE(isRefusal(stop(), Step::Stop, Phase::Prepared));
        clearFaults();
        EXPECT_TRUE(goodRun());
    }
};

TEST_F(SeamFaultTest, AFailedStartLeavesNothingOn) {
    const struct {
        const char* text;
        Fault fault;
    } rows[] = {
        {"SET_BD_SIZE ioctl error", {.kind = FaultKind::DmaIoctl, .target = 1, .code = sizeRequest}},
        {"RESERVE_BD_MEM ioctl error", {.kind = FaultKind::DmaIoctl, .target = 3, .code = reserveRequest}},
        {"START_TRANSFER ioctl error", {.kind = FaultKind::DmaIoctl, .target = 0, .code = startRequest}},
        {"START_TRANSFER ioctl error", {.kind = FaultKind::DmaIoctl, .target = 3, .code = startRequest}},
        {"DspControl::Clear process status timeout", {.kind = FaultKind::ClearNever, .target = 1, .times = -1}},
    };
    for (const auto& row : rows) {
        for (const bool undoFails : {false, true}) {
            SCOPED_TRACE(std::string(row.text) + (undoFails ? ", and the way back with it" : ""));
            inject(row.fault);
            if (undoFails) {
                inject({.kind = FaultKind::DmaIoctl, .target = 0, .code = stopRequest});
            }
            const std::string text = start();
            EXPECT_NE(text.find(row.text), std::string::npos) << text;
            clearFaults();
            if (!undoFails) {
                expectWayBack();
            } else {
                EXPECT_EQ(phase(), Phase::Prepared);
                EXPECT_TRUE(goodRun());
            }
        }
    }
}

TEST_F(SeamFaultTest, AFailedStopStopsTheRest) {
    const struct {
        const char* text;
        std::vector<Fault> faults;
    } rows[] = {
        {"STOP_TRANSFER ioctl error", {{.kind = FaultKind::DmaIoctl, .target = 0, .code = stopRequest}}},
        {"STOP_TRANSFER ioctl error",
         {{.kind = FaultKind::DmaIoctl, .target = 2, .code = stopRequest}, {.kind = FaultKind::ClearNever}}},
        {"DspControl::Clear process status timeout", {{.kind = FaultKind::ClearNever, .target = 0}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(start(), "");
        for (const auto& fault : row.faults) {
            inject(fault);
        }
        const std::string text = stop();
        EXPECT_NE(text.find(row.text), std::string::npos) << text;
        clearFaults();
        expectWayBack();
    }
}

// One failing access of a register at each place of a start and of a stop, alone and with all that follow.
TEST_F(SeamFaultTest, ARegisterThatCantBeReachedAnywhere) {
    for (const bool stopping : {false, true}) {
        for (const int64_t times : {int64_t{1}, int64_t{2}, int64_t{-1}}) {
            for (uint64_t place = 0, stride = stopping ? 5 : 61;; place += stride) {
                SCOPED_TRACE(std::string(stopping ? "stop" : "start") + ", access " + std::to_string(place) + ", " +
                             std::to_string(times) + " times");
                if (stopping) {
                    ASSERT_EQ(start(), "");
                }
                inject({.kind = FaultKind::MemMap, .afterCount = place, .times = times});
                const std::string text = stopping ? stop() : start();
                clearFaults();
                if (text.empty()) {
                    EXPECT_GT(place, stride) << "too few places";
                    if (!stopping) {
                        EXPECT_EQ(stop(), "");
                    }
                    break;
                }
                ASSERT_EQ(phase(), Phase::Prepared);
                if (times == 1) {
                    ASSERT_TRUE(isQuiet());
                }
                ASSERT_TRUE(goodRun());
            }
        }
    }
}

TEST_F(SeamFaultTest, ConvertersThatAStopCouldNotReachDeliverNothingBeforeTheStart) {
    EXPECT_EQ(start(), "");
    inject({.kind = FaultKind::MemMap, .times = -1});
    EXPECT_NE(stop(), "");
    EXPECT_EQ(phase(), Phase::Prepared);
    clearFaults();
    EXPECT_EQ(instrument().registerWord(adcEnableWord) & 1, 1u);
    EXPECT_EQ(beforeStart(), "");
    EXPECT_EQ(instrument().registerWord(adcEnableWord) & 1, 0u);
    EXPECT_EQ(start(), "");
    EXPECT_TRUE(deliversWhatItShows());
    EXPECT_EQ(stop(), "");
}

TEST_F(SeamFaultTest, AModuleThatGoesInTheMidstSwitchesOff) {
    release();
    for (const bool running : {true, false}) {
        Station next;
        ASSERT_EQ(next.add(), "");
        EXPECT_EQ(next.initialize(), "");
        EXPECT_EQ(running ? next.start() : next.beforeStart(), "");
        next.release();
        EXPECT_TRUE(isQuiet());
        EXPECT_EQ(kestrixsim::openDescriptors(), 0);
    }
}

}  // namespace
