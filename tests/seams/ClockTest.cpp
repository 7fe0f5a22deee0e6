#include <gmock/gmock.h>

#include <utility>

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

// ---- A timing device that fails ----

class SeamTimingTest : public testing::Test, protected ModuleInHost {
protected:
    SeamTimingTest() {
        device->timing = std::make_shared<TestTiming>();
        device->timing->isTracking = true;
        device->timing->hasError = false;
        devicesToFind()["ID_10"] = device;
        EXPECT_EQ(add(), "");
        EXPECT_EQ(configure(), "");
        EXPECT_EQ(initialize(), "");
        EXPECT_EQ(start(), "");
        log.take();
    }
    // Lines of any level that tell of the clock.
    int linesAfterCycles(int cycles) {
        log.entries.clear();
        for (int i = 0; i < cycles; ++i) {
            EXPECT_EQ(cycle(), "");
        }
        return static_cast<int>(log.entries.size());
    }
    bool isGood() const {
        return ask(absTime.get(), &IAbsTimeProvider::getTracking) == TrackingEnum::Yes &&
               ask(absTime.get(), &IAbsTimeProvider::getTimingError) == TimingErrorEnum::No;
    }
    bool isBad() const {
        return ask(absTime.get(), &IAbsTimeProvider::getTracking) == TrackingEnum::No &&
               ask(absTime.get(), &IAbsTimeProvider::getTimingError) == TimingErrorEnum::Yes;
    }
    std::shared_ptr<TestDevice> device = std::make_shared<TestDevice>();
};

TEST_F(SeamTimingTest, IsAnErrorThatIsToldOnce) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(linesAfterCycles(5), round == 0 ? 0 : 1) << "its return is told";
        EXPECT_TRUE(isGood());
        device->timing->fail = true;
        EXPECT_EQ(linesAfterCycles(1), 1);
        EXPECT_NE(log.entries.at(0).text.find("no clock"), std::string::npos) << log.entries.at(0).text;
        EXPECT_TRUE(isBad());
        EXPECT_EQ(linesAfterCycles(50), 0);
        EXPECT_TRUE(isBad());
        device->timing->fail = false;
    }
    EXPECT_EQ(stop(), "");
}

// A text belongs to the failure that left it.
TEST_F(SeamTimingTest, LeavesNoTextBehind) {
    device->timing->fail = true;
    EXPECT_EQ(cycle(), "");
    EXPECT_EQ(takeErrorMessage(), "");
    long time = 0;
    EXPECT_TRUE(failed(absTime->getCurrentAbsTime(&time)));
    EXPECT_EQ(absTime->getCurrentAbsTime(nullptr), Errors::ArgumentNull);
    EXPECT_EQ(takeErrorMessage(), "");
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

// ---- Asynchronous samples ----

class SeamAsyncTest : public testing::Test, protected ModuleInHost {
protected:
    SeamAsyncTest() {
        devicesToFind()["ID_10"] = device;
        EXPECT_EQ(add(), "");
        use({channel("Async in"), channel("Async out")});
        begin();
    }
    void begin() {
        EXPECT_EQ(configure(), "");
        EXPECT_EQ(initialize(), "");
        EXPECT_EQ(start(), "");
        log.take();
    }
    // So many samples come to a ring of 16 with the next cycle.
    void deliver(int count) {
        device->async->onAcquire = [this, count] {
            for (int i = 0; i < count; ++i) {
                device->async->input->samplesThisCycle = 0;
                device->async->input->addSample(i, i * 0.5);
            }
        };
        EXPECT_EQ(cycle(), "");
        device->async->onAcquire = nullptr;
    }
    int64_t lost(const char* name = "Async in") const {
        return fromValue<int64_t>(executeFunc(functionOf(channel(name), "LostSamples"), nullptr));
    }
    // The one line since the last call has to name channel and count, of this loss or of all.
    void expectLine(const std::string& name, int count, int total) {
        const auto entries = std::exchange(log.entries, {});
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_THAT(entries[0].text, testing::HasSubstr(name));
        EXPECT_THAT(entries[0].text, testing::AnyOf(testing::HasSubstr(std::to_string(count)),
                                                    testing::HasSubstr(std::to_string(total))));
    }
    std::shared_ptr<TestDevice> device = std::make_shared<TestDevice>();
};

TEST_F(SeamAsyncTest, WhatARingNoLongerHoldsIsCountedAndTold) {
    deliver(16);
    EXPECT_EQ(lost(), 0);
    EXPECT_TRUE(log.entries.empty());
    for (const int total : {24, 48}) {
        deliver(40);
        EXPECT_EQ(lost(), total);
        expectLine("Async in", 24, total);
        deliver(0);
        deliver(3);
        EXPECT_EQ(lost(), total);
        EXPECT_TRUE(log.entries.empty());
    }
    EXPECT_EQ(channel("Async in").getSamplesAcquired(), 16 + 2 * (40 + 3) - 48);
    EXPECT_EQ(channel("Async in").getSampleAtRelativePos(-1), 2.0);
    // Each run counts anew; what was lost can be read until then.
    EXPECT_EQ(stop(), "");
    EXPECT_EQ(lost(), 48);
    begin();
    EXPECT_EQ(lost(), 0);
    deliver(17);
    EXPECT_EQ(lost(), 1);
    expectLine("Async in", 1, 1);
    EXPECT_EQ(stop(), "");
}

}  // namespace
