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

struct SeamFaultTest : testing::Test, protected Station {
    SeamFaultTest() {
        EXPECT_EQ(add(), "");
        use({raw(1), filtered(1), raw(2), filtered(2)});
        EXPECT_EQ(configure(), "");
        EXPECT_EQ(initialize(), "");
    }
    // Whatever failed: nothing is on, unless the way back failed as well, the module says so, and the next run is good.
    void expectFailure(const std::string& text, const char* words, bool allOff) {
        EXPECT_NE(text.find(words), std::string::npos) << text;
        clearFaults();
        EXPECT_EQ(phase(), Phase::Prepared);
        if (allOff) {
            EXPECT_TRUE(isQuiet());
            EXPECT_TRUE(isRefusal(cycle(), Step::Cycle, Phase::Prepared));
            EXPECT_EQ(stop(), "") << "of a host that tidies up";
        }
        EXPECT_TRUE(goodRun());
    }
};

TEST_F(SeamFaultTest, AFailedStartLeavesNothingOn) {
    const std::pair<const char*, Fault> rows[] = {
        {"SET_BD_SIZE ioctl error", {.kind = FaultKind::DmaIoctl, .target = 1, .code = sizeRequest}},
        {"RESERVE_BD_MEM ioctl error", {.kind = FaultKind::DmaIoctl, .target = 3, .code = reserveRequest}},
        {"START_TRANSFER ioctl error", {.kind = FaultKind::DmaIoctl, .target = 0, .code = startRequest}},
        {"START_TRANSFER ioctl error", {.kind = FaultKind::DmaIoctl, .target = 3, .code = startRequest}},
        {"DspControl::Clear process status timeout", {.kind = FaultKind::ClearNever, .target = 1, .times = -1}},
    };
    for (const auto& [words, fault] : rows) {
        for (const bool undoFails : {false, true}) {
            SCOPED_TRACE(std::string(words) + (undoFails ? ", and the way back with it" : ""));
            inject(fault);
            if (undoFails) {
                inject({.kind = FaultKind::DmaIoctl, .target = 0, .code = stopRequest});
            }
            expectFailure(start(), words, !undoFails);
        }
    }
}

TEST_F(SeamFaultTest, AFailedStopStopsTheRest) {
    const std::pair<const char*, std::vector<Fault>> rows[] = {
        {"STOP_TRANSFER ioctl error", {{.kind = FaultKind::DmaIoctl, .target = 0, .code = stopRequest}}},
        {"STOP_TRANSFER ioctl error",
         {{.kind = FaultKind::DmaIoctl, .target = 2, .code = stopRequest}, {.kind = FaultKind::ClearNever}}},
        {"DspControl::Clear process status timeout", {{.kind = FaultKind::ClearNever, .target = 0}}},
    };
    for (const auto& [words, faults] : rows) {
        SCOPED_TRACE(words);
        EXPECT_EQ(start(), "");
        std::ranges::for_each(faults, inject);
        expectFailure(stop(), words, true);
    }
}

struct OneSlotTest : testing::Test, protected Station {
    OneSlotTest() : Station(slots(1)) {
        EXPECT_EQ(add(), "");
        EXPECT_EQ(initialize(), "");
    }

    // With registers that can't be reached, so many times, from an access of the step on: whether it succeeds. In
    // either case nothing is left on, and the next run is good.
    bool succeeds(Step step, uint64_t place, int64_t times) {
        SCOPED_TRACE(std::string(nameOf(step)) + ", access " + std::to_string(place) + ", " + std::to_string(times));
        if (step == Step::Stop) {
            EXPECT_EQ(start(), "");
        }
        inject({.kind = FaultKind::MemMap, .afterCount = place, .times = times});
        const bool success = take(step).empty();
        clearFaults();
        if (success && step == Step::Start) {
            EXPECT_TRUE(deliversWhatItShows());
            EXPECT_EQ(stop(), "");
        }
        EXPECT_EQ(phase(), Phase::Prepared);
        if (times == 1) {
            EXPECT_TRUE(isQuiet());
        }
        EXPECT_TRUE(goodRun());
        return success;
    }
};

// What is only switched off to be sure may fail without a word; then the run is good.
TEST_F(OneSlotTest, RegistersThatCantBeReachedAnywhereInAStep) {
    for (const auto& [step, stride] : {std::pair{Step::Start, uint64_t{23}}, {Step::Stop, 5}}) {
        uint64_t end = 0;
        while (!HasFailure() && !succeeds(step, end, -1)) {
            end += stride;
        }
        EXPECT_GT(end, 3 * stride);
        for (uint64_t place = 0; !HasFailure() && place < end; place += stride) {
            succeeds(step, place, 1);
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
