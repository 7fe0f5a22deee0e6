#include "tests/seams/Station.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

struct SeamRateTest : testing::Test, protected Station {
    SeamRateTest() : Station(board()) { EXPECT_EQ(add(), ""); }
    // Its modules are always on: a change of the clock doesn't wait for their supply.
    static kestrixsim::Scenario board() {
        auto scenario = slots(2);
        scenario.boardType = 1;
        return scenario;
    }

    // Asks for a rate and answers what is shown; the exact rate has to fit it.
    static int64_t shownFor(const ChannelPtr<>& channel, int64_t request, int64_t full) {
        channel.setPropertyValue("SampleRate", Ratio{request, 1});
        const auto shown = channel.getPropertyValue<Ratio>("SampleRate");
        const auto exact = channel.getPropertyValue<Ratio>("ExactSampleRate");
        EXPECT_EQ(shown.denominator, 1);
        EXPECT_EQ(exact.numerator * (full / shown.numerator), full * exact.denominator)
            << full << ", " << request << ": " << exact.numerator << "/" << exact.denominator;
        return shown.numerator;
    }
};

// A number that is shown means a divider, in any process and at any time. So whole fractions of the full rate, cut to a
// whole number, stay as they are; other requests become the next fraction below.
TEST_F(SeamRateTest, WhatIsShownCanBeWrittenBack) {
    for (const int clockIndex : {0, 1}) {
        EXPECT_EQ(asUser(device(), "BaseClock", clockIndex), "");
        for (const int system : {1000, 1000000, 16000, 46875, 2500}) {
            EXPECT_EQ(askFor(dataModule, system), "");
            const int64_t full = rateOf(dataModule);
            SCOPED_TRACE(std::to_string(full) + " S/s, clock " + std::to_string(clockIndex));
            int wrong = 0;
            for (int64_t request = 1; request <= 5000 && wrong < 3; ++request) {
                const int64_t within = std::clamp<int64_t>(request, 100, full);
                const bool stays = full / (full / within) == within;
                const int64_t raws = shownFor(raw(1), request, full);
                wrong += raws != (stays ? within : full / ((full + within - 1) / within)) ? 1 : 0;
                const int64_t filters = shownFor(filtered(1), request, full);
                wrong += full % filters != 0 ? 1 : 0;
                wrong += shownFor(raw(1), raws, full) != raws ? 1 : 0;
                wrong += shownFor(filtered(1), filters, full) != filters ? 1 : 0;
                EXPECT_EQ(wrong, 0) << request << " gives " << raws << " and " << filters;
            }
        }
    }
}

// The seventh part of 1000 is shown as 142 and isn't.
TEST_F(SeamRateTest, ATruncatedRateRunsAtItsExactRate) {
    use({raw(1), raw(2), filtered(2)});
    EXPECT_EQ(askFor(raw(1), 150), "");
    EXPECT_EQ(rateOf(raw(1)), 142);
    EXPECT_EQ(raw(1).getPropertyValue<Ratio>("ExactSampleRate"), (Ratio{1000, 7}));
    EXPECT_TRUE(goodRun(3.0));
    // Stored and loaded, and as the first thing that a new process hears of it.
    EXPECT_EQ(askFor(raw(2), 142), "");
    EXPECT_EQ(rateOf(raw(2)), 142);
    EXPECT_TRUE(goodRun(3.0));
    EXPECT_TRUE(raw(1).getPropertyInfo("ExactSampleRate").isHidden());
    // Nobody sets it: neither a user nor a setup that was stored at another rate.
    asUser(raw(1), "ExactSampleRate", Ratio{1, 1});
    asHost(raw(1), "ExactSampleRate", Ratio{2, 1});
    EXPECT_EQ(raw(1).getPropertyValue<Ratio>("ExactSampleRate"), (Ratio{1000, 7}));
}

// What the filtered channel's delay is at a rate is known when the host asks for it.
TEST_F(SeamRateTest, InitializeTellsTheDelayOfTheRateInForce) {
    for (const auto& [rate, delay] : {std::pair{50000, 41}, {1875000, 43}, {1000, 40}}) {
        EXPECT_EQ(askFor(dataModule, rate), "");
        EXPECT_EQ(initialize(), "");
        EXPECT_EQ(filtered(1).getPropertyValue<int>("PhaseDelay"), delay) << rate;
    }
}

// A clock that can't be had is told and not shown; asked for again it comes.
TEST_F(SeamRateTest, ARefusedClockCanBeAskedForAgain) {
    for (const bool refused : {true, false}) {
        if (refused) {
            inject({.kind = FaultKind::ScriptRefuses});
        }
        log.take();
        asUser(device(), "BaseClock", 1);
        EXPECT_EQ(device().getPropertyValue<int>("BaseClock"), refused ? 0 : 1);
        EXPECT_EQ(log.take().size(), refused ? 1u : 0u);
    }
    EXPECT_TRUE(goodRun());
}

// A host of another make, whose tree doesn't know of setups that are being loaded.
TEST_F(SeamRateTest, AHostThatNeverLoadsASetup) {
    const auto top = ChannelFolderPtr::create("Top");
    checkErrorInfo(dataModule->setParent(top.get(), StringPtr("module").get()));
    log.take();
    EXPECT_EQ(askFor(dataModule, 16000), "");
    EXPECT_EQ(rateOf(dataModule), 15625) << "the clock stays";
    EXPECT_EQ(rateOf(device()), 15625);
    EXPECT_EQ(askFor(device(), 5000), "");
    EXPECT_EQ(rateOf(raw(1)), rateOf(device()));
    for (const auto& text : log.take()) {
        EXPECT_EQ(text.find("Error executing"), std::string::npos) << text;
    }
}

}  // namespace
