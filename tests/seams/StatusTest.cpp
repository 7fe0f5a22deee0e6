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
    static double timeAt(const ChannelPtr<>& channel, size_t position) {
        long ticks = 0;
        checkErrorInfo(channel.asPtr<IAsyncChannel>()->getTimestampAtPos(position, &ticks));
        return static_cast<double>(ticks) / 1e9;
    }
    // Of the named part, each row as "Name=value".
    std::vector<std::vector<std::string>> health(const char* part) const {
        std::vector<std::vector<std::string>> rows;
        const ListPtr parts = executeFunc(functionOf(dataModule, "HealthState"), nullptr).asPtr<IList>();
        for (size_t i = 0; i < parts.getCount(); ++i) {
            const ListPtr pair = parts.getItemAt(i).asPtr<IList>();
            if (fromValue<std::string>(pair.getItemAt(0)) != part) {
                continue;
            }
            const ListPtr list = pair.getItemAt(1).asPtr<IList>();
            for (size_t k = 0; k < list.getCount(); ++k) {
                auto& row = rows.emplace_back();
                const ListPtr fields = list.getItemAt(k).asPtr<IList>();
                for (size_t f = 0; f < fields.getCount(); ++f) {
                    const ListPtr field = fields.getItemAt(f).asPtr<IList>();
                    row.push_back(fromValue<std::string>(field.getItemAt(0)) + "=" + textOf(field.getItemAt(1)));
                }
            }
        }
        return rows;
    }
};

TEST_F(SeamStatusTest, SamplesReachTheHostWithTheirTimes) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const auto analog = channel("Raw input");
    auto& clock = *impl->daqController.daqDevices.at(0);
    use({analog, channel("CPU temperature"), channel("Phase error"), channel("VCXO value"), channel("Cable detect 1"),
         channel("Motherboard temperature")});
    ASSERT_EQ(initialize(), "");
    ASSERT_EQ(start(), "");
    cyclesFor(channel("CPU temperature"), 4);
    const double now = clock.daqClock->getCurrentTime(true);
    for (const char* name :
         {"CPU temperature", "Motherboard temperature", "Phase error", "VCXO value", "Cable detect 1"}) {
        const auto each = channel(name);
        const auto samples = static_cast<size_t>(each.getSamplesAcquired());
        ASSERT_GT(samples, 3u) << name;
        const size_t capacity = each.getBuffer().getCapacity();
        double before = 0.0;
        for (size_t i = samples - std::min(samples, capacity); i < samples; ++i) {
            EXPECT_GE(timeAt(each, i % capacity), before) << name;
            before = timeAt(each, i % capacity);
        }
        EXPECT_LE(before, now) << name;
        EXPECT_GT(before, now - 6.0) << name;
    }
    EXPECT_EQ(channel("Cable detect 2").getSamplesAcquired(), 0) << "not in use";
    const auto* temperatures = static_cast<const float*>(channel("CPU temperature").getBuffer().getData());
    EXPECT_NEAR(temperatures[3], kestrixsim::instrument().processorCelsius() + 0.8, 1.5);
    const auto* words = static_cast<const std::uint16_t*>(channel("VCXO value").getBuffer().getData());
    EXPECT_EQ(words[0], 506);
    EXPECT_EQ(stop(), "");
}

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
    const auto lost =
        fromValue<std::int64_t>(executeFunc(functionOf(channel("Phase error"), "SamplesOverflowed"), nullptr));
    EXPECT_GT(lost, 20);
    const auto unread =
        fromValue<std::int64_t>(executeFunc(functionOf(channel("Cable detect 1"), "FailedReads"), nullptr));
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
}

TEST_F(SeamStatusTest, HealthIsToldToWhoeverAsks) {
    ASSERT_NO_FATAL_FAILURE(begin());
    const auto has = [](const std::vector<std::string>& row, const std::string& field) {
        return std::find(row.begin(), row.end(), field) != row.end();
    };
    kestrixsim::instrument().inject({.kind = FaultKind::SensorRubbish, .target = 1, .times = -1});
    auto sensors = health("Sensors");
    // It is asked for long after the eight reads of the beginning.
    std::this_thread::sleep_for(std::chrono::seconds(22));
    for (int i = 0; i < 200 && has(sensors.at(1), "Ok=true"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        sensors = health("Sensors");
    }
    ASSERT_EQ(sensors.size(), 5u);
    EXPECT_EQ(sensors[1].size(), 9u);
    for (const char* field : {"Group=CPU", "Name=PS remote", "Place=/sys/class/hwmon/hwmon2/temp2_input", "Celsius=0",
                              "Ok=false", "Reason=file /sys/class/hwmon/hwmon2/temp2_input holds no number"}) {
        EXPECT_TRUE(has(sensors[1], field)) << field << testing::PrintToString(sensors[1]);
    }
    EXPECT_TRUE(has(sensors[4], "Ok=true"));
    const auto lines = health("Lines");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], (std::vector<std::string>{"Name=Cable detect 2", "Place=/sys/class/gpio/gpio497/value",
                                                  "Value=false", "Reason="}));
    // Whoever holds the function beyond the module's life is refused.
    const auto function = functionOf(dataModule, "HealthState");
    release();
    EXPECT_NE(failure([&] { executeFunc(function, nullptr); }), "");
}

}  // namespace
