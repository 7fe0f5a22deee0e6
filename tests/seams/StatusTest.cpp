#include <algorithm>
#include <thread>

#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/StatusChannel.h"
#include "modules/daq/objectmodel/StatusDevice.h"
#include "tests/seams/Station.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

// A module whose instrument's time passes 6 times faster.
class SeamStatusTest : public testing::Test, protected ModuleInHost {
protected:
    ~SeamStatusTest() override { release(); }

    void begin() {
        kestrixsim::Scenario scenario = Station::slots(2);
        scenario.timeFactor = 6.0;  // the rings hold a third of a second of the computer's
        scenario.canPorts = 0;
        kestrixsim::reset(scenario);
        ASSERT_EQ(add(), "");
        ASSERT_EQ(configure(), "");
    }
    // Cycles until the channel has so many samples.
    void cyclesFor(const ChannelPtr<>& channel, long samples) {
        const auto end = std::chrono::system_clock::now() + std::chrono::seconds(400);
        while (channel.getSamplesAcquired() < samples) {
            ASSERT_EQ(cycle(), "");
            ASSERT_LT(std::chrono::system_clock::now(), end);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
};

// The loss is told once and the cycle goes on: the analog inputs stand behind in the walk.
TEST_F(SeamStatusTest, WhatHasNoRoomIsToldOnce) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const auto analog = channel("Raw input");
    use({analog, channel("Phase error"), channel("Cable detect 1")});
    for (const auto& each : impl->daqController.allChannels) {
        each->asyncRate = each->name == "Phase error" ? 0 : each->asyncRate;
    }
    ASSERT_EQ(initialize(), "");
    ASSERT_EQ(start(), "");
    cyclesFor(channel("Cable detect 1"), 3);
    kestrixsim::instrument().inject({.kind = FaultKind::SensorDenied, .target = 13, .times = -1});
    log.entries.clear();
    const long before = analog.getSamplesAcquired();
    cyclesFor(analog, before + 4000);
    kestrixsim::instrument().clearFaults();
    cyclesFor(channel("Cable detect 1"), channel("Cable detect 1").getSamplesAcquired() + 20);
    EXPECT_GT(countOf(channel("Phase error"), "SamplesOverflowed"), 20);
    const auto unread = countOf(channel("Cable detect 1"), "FailedReads");
    EXPECT_GT(unread, 5);
    EXPECT_EQ(stop(), "");
    EXPECT_EQ(log.take(),
              (Texts{"Channel \"Cable detect 1\" has failed to read 1 times in this run: its line can't be read",
                     "Channel \"Cable detect 1\" has failed to read " + std::to_string(unread) +
                         " times in this run; its line can be read again"}));
}

// A clock that can't be read costs the status channels their samples, and nobody else anything.
TEST_F(SeamStatusTest, AClockThatCantBeReadIsToldOnceAndItsEnd) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const auto analog = channel("Raw input");
    const auto phase = channel("Phase error");
    use({analog, phase});
    ASSERT_EQ(initialize(), "");
    ASSERT_EQ(start(), "");
    cyclesFor(phase, 3);
    log.entries.clear();
    kestrixsim::instrument().inject({.kind = FaultKind::MemMap, .code = static_cast<int>(0xA3000000), .times = -1});
    const long before = phase.getSamplesAcquired();
    cyclesFor(analog, analog.getSamplesAcquired() + 4000);
    EXPECT_EQ(phase.getSamplesAcquired(), before);
    kestrixsim::instrument().clearFaults();
    cyclesFor(phase, before + 3);
    Texts told = log.take();
    std::erase_if(told, [](const std::string& text) { return text.find("the status ") != 0; });
    ASSERT_EQ(told.size(), 2u) << testing::PrintToString(told);
    EXPECT_EQ(told[0], "the status channels get no samples: Failed to map memory.");
    EXPECT_EQ(told[1].find("the status device works again after "), 0u) << told[1];
    EXPECT_EQ(stop(), "");
    // Whoever holds a function beyond the module's life is refused.
    const auto health = functionOf(dataModule, "HealthState");
    EXPECT_EQ(failure([&] { executeFunc(health, nullptr); }), "");
    release();
    EXPECT_NE(failure([&] { executeFunc(health, nullptr); }), "");
}

}  // namespace
