#include <exception>

#include "modules/daq/objectmodel/AIChannel.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"
#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/FailureOf.h"

using namespace Harvane::RT::Modules::Daq;
namespace RegistersAddress = Harvane::Shared::Kestrix::RegistersAddress;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;
using Strings = std::vector<std::string>;

namespace {

constexpr int clock15 = 15000000;
constexpr int clock10 = 10000000;
constexpr int globalPage = static_cast<int>(0xA6000000);
constexpr int pllPage = static_cast<int>(0xB0000000);
const std::string unknownClock = "The sampling clock is unknown: a base clock has to be chosen before a start.";

struct ClockTest : KestrixFixture {
    // One module. The modules of the small board are always on, so that a change takes no time there.
    static Scenario scenario(int boardType) {
        Scenario scenario = warmScenario(1);
        scenario.boardType = boardType;
        scenario.timeFactor = 2.0;
        return scenario;
    }

    template <class Operation>
    static std::string failureOf(const Operation& operation) {
        return kestrixtest::failureOf<std::exception>(operation);
    }
    std::string request(int clock) {
        return failureOf([&] { ai().setBaseClock(clock); });
    }

    // Everything that goes by the clock; 0 in force leaves the limits of the last one.
    void expectClock(int inForce, int limit) {
        EXPECT_EQ(ai().baseClock, inForce);
        EXPECT_EQ(RegistersAddress::baseClock, limit);
        EXPECT_EQ(device().maxRate, limit);
        EXPECT_EQ(ai().maxRate, limit);
        EXPECT_EQ(channel(0).maxRate, limit);
        EXPECT_EQ(channel(1).maxRate, limit == clock15 ? 1875000 : 2000000);
        EXPECT_EQ(controller->getMaxSampleRate(), limit);
    }

    // Neither step of a start touches anything.
    void expectRefusedStart(const std::string& text) {
        EXPECT_EQ(failureOf([&] { controller->systemDevice->prepareAcquisition(true); }), text);
        EXPECT_EQ(failureOf([&] { setUpRun(); }), text);
        EXPECT_EQ(whatIsOn(), "");
    }

    // A rate that only 10 MHz can make, or one that 15 MHz make, sample by sample.
    void expectGoodRun() {
        use({0, 1});
        const bool ten = ai().baseClock == clock10;
        controller->setSampleRate(ten ? 16000 : 46875);
        start();
        EXPECT_EQ(word(0xA000010C), ten ? 625u : 320u);
        EXPECT_NO_FATAL_FAILURE(acquireCounting({0, 1}, 3000));
        stop();
        EXPECT_EQ(whatIsOn(), "");
    }

    // What supply, oscillator and PLLs were told since the last call. Never the latter two while the supply was on.
    Strings clockSteps() {
        Strings steps = takeJournal();
        std::erase_if(steps, [](const std::string& step) {
            return !step.starts_with("supply") && !step.starts_with("oscillator") && !step.starts_with("pll");
        });
        for (const std::string& step : steps) {
            EXPECT_EQ(step.find("under supply"), step.npos) << step;
        }
        return steps;
    }
};

TEST_F(ClockTest, IsTakenFromThePllsAndSetWhereTheyHoldNone) {
    const std::tuple<kestrixsim::PllScenario, int, Strings> cases[] = {
        {{.selection = 1}, clock10, {}},
        {{.selection = 0}, clock15, {}},
        {{.selection = 2}, clock15, {"supply 0", "oscillator 15", "pll 0", "supply 255"}},
        {{.selection = 1, .lock0 = false}, clock15, {"supply 0", "oscillator 15", "pll 0", "supply 255"}},
        {{.selection = 0, .lock1 = false}, clock15, {"supply 0", "oscillator 15", "pll 0", "supply 255"}},
    };
    for (const auto& [pll, clock, steps] : cases) {
        Scenario board = scenario(0);
        board.pll = pll;
        bringUp(board);
        expectClock(clock, clock);
        EXPECT_EQ(clockSteps(), steps);
        expectGoodRun();
        // A channel's rates are those of this clock, too.
        EXPECT_EQ(controller->checkSampleRate(48000), clock == clock10 ? 40000 : 46875);
        EXPECT_EQ(ai().checkChannelRate(1, 8000000, 8000000), clock == clock10 ? 2000000 : 1600000);
    }
}

TEST_F(ClockTest, ChangeMovesTheWholeInstrument) {
    Scenario board = warmScenario(2);
    board.timeFactor = 2.0;
    bringUp(board);
    EXPECT_EQ(request(12000000), "no failure");
    EXPECT_EQ(request(clock15), "no failure");
    EXPECT_EQ(clockSteps(), Strings{});
    EXPECT_EQ(request(clock10), "no failure");
    expectClock(clock10, clock10);
    EXPECT_EQ(clockSteps(), (Strings{"supply 0", "oscillator 10", "pll 1", "supply 127", "supply 255"}));
    EXPECT_TRUE(isDetected(ai(), 0) && isDetected(ai(), 1));
    expectGoodRun();
    EXPECT_EQ(request(clock10), "no failure");
    EXPECT_EQ(clockSteps(), Strings{});
    EXPECT_EQ(request(clock15), "no failure");
    expectClock(clock15, clock15);
    EXPECT_EQ(clockSteps(), (Strings{"supply 0", "oscillator 15", "pll 0", "supply 127", "supply 255"}));
    expectGoodRun();
}

TEST_F(ClockTest, FailedChangeGoesBackOrIsFinishedAndCanBeRepeated) {
    constexpr auto script = "KestrixAI::configureClock failed";
    constexpr auto map = "Failed to map memory.";
    constexpr auto silent = "The amplifier in slot 1 doesn't answer any more.";
    constexpr auto stuck = "unable to set amplifiers UART mux";
    constexpr auto noMemory = "/opt/harvane/scripts/vcxo_control.sh: Cannot allocate memory";
    struct Case {
        const char* name;
        Fault fault;
        const char* text;
        int inForce;  // afterwards; 0: neither way worked
        int boardType = 1;
    };
    std::vector<Case> cases{
        {"script refuses", {.kind = FaultKind::ScriptRefuses}, script, clock15},
        {"script works unheard", {.kind = FaultKind::ScriptUnheard}, script, clock15},
        {"script can't be run", {.kind = FaultKind::ScriptFails}, noMemory, clock15},
        {"script refuses for good", {.kind = FaultKind::ScriptRefuses, .times = -1}, script, 0},
        {"script refuses the way back", {.kind = FaultKind::ScriptUnheard, .times = 2}, script, 0},
        {"PLL stays busy", {.kind = FaultKind::PllBusy, .times = -1}, "The PLLs have not locked to 10000000 Hz.", 0},
        {"amplifier is silent", {.kind = FaultKind::AmplifierSilent, .times = -1}, silent, clock10},
        {"multiplexer is stuck", {.kind = FaultKind::MuxReadsBack, .code = 0x4F, .times = -1}, stuck, clock10},
        {"bus fails", {.kind = FaultKind::MuxError, .afterCount = 3, .times = -1}, silent, clock10},
    };
    // Off: two accesses. On: two each for three settings, a look, two for the module.
    for (const uint64_t access : {0, 2, 8, 10}) {
        const Fault fault{.kind = FaultKind::MemMap, .code = globalPage, .afterCount = access};
        cases.push_back({"supply", fault, map, access < 2 ? clock15 : clock10, 0});
    }
    for (const Case& expected : cases) {
        SCOPED_TRACE(std::string(expected.name) + " " + std::to_string(expected.fault.afterCount));
        bringUp(scenario(expected.boardType));
        inject(expected.fault);
        ASSERT_EQ(request(clock10), expected.text);
        expectClock(expected.inForce, expected.inForce == clock10 ? clock10 : clock15);
        if (expected.inForce == 0) {
            expectRefusedStart(unknownClock);
        }
        clearFaults();
        // What is only unfinished a start makes up for; one that fails leaves it to the next.
        if (expected.inForce == clock10) {
            if (expected.boardType == 0) {
                inject({.kind = FaultKind::MemMap, .code = globalPage});
                EXPECT_EQ(failureOf([&] { controller->systemDevice->prepareAcquisition(true); }), map);
            }
            expectGoodRun();
            EXPECT_TRUE(isDetected(ai(), 0));
            EXPECT_TRUE(expected.boardType == 1 || (word(0xA6000010) & 255) == 255);
        }
        EXPECT_EQ(request(clock10), "no failure");
        expectClock(clock10, clock10);
        EXPECT_TRUE(isDetected(ai(), 0));
        expectGoodRun();
        clockSteps();
    }
}

TEST_F(ClockTest, GoesBackFromEachAccessToThePlls) {
    bringUp(scenario(1));
    uint64_t access = 0;
    for (;; ++access) {
        inject({.kind = FaultKind::MemMap, .code = pllPage, .afterCount = access});
        const std::string text = request(clock10);
        clearFaults();
        if (text == "no failure") {
            break;
        }
        ASSERT_EQ(text, "Failed to map memory.") << access;
        expectClock(clock15, clock15);
    }
    EXPECT_GE(access, 10u);
    expectClock(clock10, clock10);
    expectGoodRun();
    clockSteps();
}

TEST_F(ClockTest, AnAmplifierThatWasTakenOutIsToldOnce) {
    bringUp(scenario(1));
    kestrixsim::instrument().unplug(0);
    EXPECT_EQ(request(clock10), "The amplifier in slot 1 doesn't answer any more.");
    EXPECT_EQ(failureOf([&] { prepare(); }), "no failure");
}

TEST_F(ClockTest, IsThatOfTheHardwareWhateverWasAskedFor) {
    bringUp(scenario(1));
    // Somebody else moves the instrument.
    kestrixsim::instrument().runCommand("/opt/harvane/scripts/vcxo_control.sh set_clock 10");
    kestrixsim::instrument().storeWord(0xB0000000, 0, 3);
    takeJournal();
    expectRefusedStart(unknownClock);
    expectClock(0, clock15);
    EXPECT_EQ(request(clock15), "no failure");
    expectClock(clock15, clock15);
    EXPECT_EQ(clockSteps(), (Strings{"supply 0", "oscillator 15", "pll 0"}));
    expectGoodRun();
}

}  // namespace
