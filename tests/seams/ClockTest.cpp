#include "tests/seams/Station.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

class SeamClockTest : public testing::Test, protected Station {};

TEST_F(SeamClockTest, MayBeAskedAtAnyTime) {
    const Questioner questioner(impl);
    EXPECT_EQ(add(), "");
    use({raw(1), filtered(2)});
    for (const int rate : {1000, 20000}) {
        EXPECT_EQ(askFor(dataModule, rate), "");
        EXPECT_EQ(askFor(raw(1), rate / 2), "");
        EXPECT_EQ(choose(14), "");
        EXPECT_EQ(choose(1), "");
        EXPECT_TRUE(goodRun());
        EXPECT_EQ(asUser(device(), "BaseClock", 1), "");
    }
    inject({.kind = FaultKind::DmaIoctl, .target = 1, .code = 0x40064C08});
    EXPECT_NE(start(), "");
    EXPECT_TRUE(goodRun());
}

TEST_F(SeamClockTest, CountsPartsOfASecond) {
    EXPECT_EQ(add(), "");
    use({raw(1)});
    EXPECT_EQ(initialize(), "");
    EXPECT_EQ(start(), "");
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(deliversWhatItShows(0.4));
        EXPECT_NEAR(secondsOf(impl, &IClockProvider::getCurrentClock), 0.4 * i, 0.2);
    }
    EXPECT_EQ(stop(), "");
}

// The counter of the hardware begins anew every 286 s.
TEST_F(SeamClockTest, TimeAndSamplesGoTogetherOverTheWrapsOfTheCounter) {
    constexpr double cycleS = 0.02;
    constexpr double blockS = 0.125;
    EXPECT_EQ(add(), "");
    use({raw(1), filtered(1)});
    EXPECT_TRUE(goodRun());
    EXPECT_EQ(start(), "");
    EXPECT_TRUE(deliversWhatItShows());
    time->hold();
    const double begun = time->now() - secondsOf(impl, &IClockProvider::getCurrentClock);
    const long start = ask(absTime.get(), &IAbsTimeProvider::getStartAbsTime);
    while (time->now() < begun + 600.0) {
        time->step(cycleS);
        ASSERT_EQ(cycle(), "");
        const double current = secondsOf(impl, &IClockProvider::getCurrentClock);
        ASSERT_NEAR(current, time->now() - begun, 1e-4);
        ASSERT_NEAR(secondsOf(impl, &IClockProvider::getAcquiredClock), current - blockS / 2.0, blockS / 2.0 + cycleS);
    }
    EXPECT_EQ(start, ask(absTime.get(), &IAbsTimeProvider::getStartAbsTime));
    EXPECT_EQ(start % 1000000, 0);
    time->run();
    EXPECT_EQ(stop(), "");
}

// ---- The host's log ----

TEST_F(SeamClockTest, AddConnectsTheLog) {
    ILogger* found = nullptr;
    checkErrorInfo(zornGetLogger("DaqModule", &found));
    const auto logger = ObjectPtr<ILogger>::take(found);
    constexpr int nothingPasses = 6;
    checkErrorInfo(logger->setLevel(nothingPasses));
    EXPECT_EQ(add(), "");
    EXPECT_EQ(askFor(dataModule, 48000), "");
    EXPECT_EQ(log.take(), Texts{"Sample rate was set to 48000, adjusted to 46875"});
}

}  // namespace
