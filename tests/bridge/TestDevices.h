#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/DaqTiming.h"

// Small devices for the tests of the bridge: an instrument of eight channels whose rates are divisors of a selectable
// clock.
namespace Harvane::RT::Modules::Daq::Test {

template <class T>
struct TestChannel : Channel {
    TestChannel(int number, const std::string& channelName, SampleType type) : Channel(number) {
        name = channelName;
        sampleType = type;
        createChannelBuffer<T>();
    }
};

// Rates of a clock: its whole divisors from 10 on.
inline int divisorAtOrBelow(int rate, int clock) {
    int found = std::min(rate, clock);
    while (found > 10 && clock % found != 0) {
        --found;
    }
    return std::max(found, 10);
}

struct TestAI : AIDevice {
    TestAI() {
        baseClocks = {15000000, 10000000};
        baseClock = 15000000;
        add<short>("Raw 1", SampleType::Sync);
        add<int>("Filtered 1", SampleType::Sync);
        add<signed char>("Byte", SampleType::Sync);
        add<float>("Single", SampleType::Sync);
        add<double>("Double", SampleType::Sync);
        add<CanMessage>("Record", SampleType::Sync);
        for (const auto& channel : channels) {
            channel->maxRate = baseClock;
        }
        channels[1]->unit = "V";
        channels[1]->bufferGranularity = 32;
        channels[1]->phaseDelay = 7;
        channels[1]->minRate = 5;
        channels[3]->enabled = false;
    }

    template <class T>
    void add(const std::string& channelName, SampleType type) {
        channels.push_back(std::make_shared<TestChannel<T>>(static_cast<int>(channels.size()), channelName, type));
    }

    using Device::checkRate;
    int checkRate(int requested) const override {
        onCheck();
        const int found = divisorAtOrBelow(requested, baseClock);
        return found == impossibleRate ? divisorAtOrBelow(found - 1, baseClock) : found;
    }
    int getBaseClockForSampleRate(int wanted) override {
        for (const int clock : {baseClock, 15000000, 10000000}) {
            if (divisorAtOrBelow(wanted, clock) == wanted) {
                return clock;
            }
        }
        return baseClock;
    }
    void onBaseClockChanged() override {
        for (const auto& channel : channels) {
            channel->maxRate = baseClock;
        }
        channels[1]->maxRate = baseClock == 10000000 ? filteredMaxAt10MHz : baseClock;
        maxRate = baseClock;
        if (auto owner = getDevice()) {
            owner->maxRate = baseClock;
        }
    }
    void buildChannelView() override {
        channelView = std::make_shared<ChannelFolder>("Analog", false);
        auto shared = std::make_shared<ChannelFolder>("Slot 1", true);
        auto plain = std::make_shared<ChannelFolder>("Others", false);
        for (size_t i = 0; i < channels.size(); ++i) {
            (i < 2 ? shared : plain)->addChannel(channels[i]);
        }
        channelView->push_back(shared);
        channelView->push_back(plain);
    }
    // NOLINTNEXTLINE(bugprone-parent-virtual-call): the channels are those of the test
    void initializeHardware() override { SubDevice::initializeHardware(); }
    void acquireData() override {
        AIDevice::acquireData();
        onAcquire();
    }
    void sendData() override {
        ++sendCount;
        AIDevice::sendData();
        onSend();
    }

    std::function<void()> onCheck = [] {};
    int impossibleRate = 0;
    int filteredMaxAt10MHz = 10000000;
    std::function<void()> onAcquire = [] {};
    std::function<void()> onSend = [] {};
    int sendCount = 0;
};

// Asynchronous channels: an input, an output and a single value, which has no place in the host's tree.
struct TestAsync : SubDevice {
    TestAsync() {
        input = std::make_shared<TestChannel<int>>(0, "Async in", SampleType::Async);
        output = std::make_shared<TestChannel<int>>(1, "Async out", SampleType::Async);
        output->isControl = true;
        for (const auto& channel : std::vector<std::shared_ptr<Channel>>{
                 input, output, std::make_shared<TestChannel<int>>(2, "Single value", SampleType::SingleValue),
                 std::make_shared<TestChannel<CanMessage>>(3, "Messages", SampleType::Async)}) {
            channel->asyncRate = 8;  // a ring of 16
            channels.push_back(channel);
        }
    }
    std::string getDisplayName() const override { return "Messages and numbers"; }
    void acquireData() override {
        SubDevice::acquireData();
        onAcquire();
    }

    std::shared_ptr<Channel> input;
    std::shared_ptr<Channel> output;
    std::function<void()> onAcquire = [] {};
};

struct TestTiming : DaqTiming {
    std::int64_t getStartTime() override { return 1111; }
    std::int64_t getCurrentTime(bool& tracking, bool& error) override {
        ++queries;
        tracking = isTracking;
        error = hasError;
        if (fail) {
            throw std::runtime_error("no clock");
        }
        return 2222;
    }

    int queries = 0;
    bool isTracking = false;
    bool hasError = true;
    bool fail = false;
};

struct TestLoop : DaqLoop {
    TestLoop() {
        minCycleRate = 2;
        maxCycleRate = 400;
        cycleRate = 50;
    }
    int checkCycleRate(int requested) const override { return std::clamp(requested, minCycleRate, maxCycleRate); }
    int checkCycleRate(int requested, const std::vector<int>& deviceSampleRates) const override {
        return std::min(checkCycleRate(requested), *std::ranges::min_element(deviceSampleRates));
    }
    void setCycleFunction(const std::function<void()>& function) override { cycle = function; }

    std::function<void()> cycle;
};

struct TestDevice : DaqDevice {
    TestDevice() {
        model = "Bench 8";
        manufacturer = "Maker";
        serialNumber = "SN-17";
        revisionCounter = 3;
        deviceManual = "manual.pdf";
        deviceRevision = "B";
        softwareRevision = "1.2";
        hardwareRevision = "4";
        deviceHealth = 2;
        minRate = 10;
        maxRate = 15000000;
    }
    ~TestDevice() override { ++destroyed; }

    std::string getDisplayName() const override {
        onName();
        return DaqDevice::getDisplayName();
    }
    std::shared_ptr<AIDevice> createAIDevice() override { return ai = std::make_shared<TestAI>(); }
    std::shared_ptr<SubDevice> createCntDevice() override { return async = std::make_shared<TestAsync>(); }
    std::shared_ptr<DaqTiming> createDaqTiming() override { return timing; }
    std::shared_ptr<DaqLoop> createDaqLoop() override { return loop; }
    // SoftSync, so that several of them go together.
    SynchronizationOptions getSynchronizationOptions() override {
        return {Synchronization::CreateSyncOption(SynchronizationMode::Standalone, {}),
                Synchronization::CreateSyncOption(SynchronizationMode::SoftSync, {})};
    }
    bool ioctl(int command, const std::string& argument, std::string& result) override {
        if (command == 99) {
            throw std::runtime_error("no such luck");
        }
        result = argument + "!";
        return command == 1;
    }

    std::function<void()> onName = [] {};
    std::shared_ptr<TestAI> ai;
    std::shared_ptr<TestAsync> async;
    std::shared_ptr<TestTiming> timing;
    std::shared_ptr<TestLoop> loop;
    static inline int destroyed = 0;
};

// What discovery finds in the next scan, by connection point ("ID_10").
std::map<std::string, std::shared_ptr<Device>>& devicesToFind();

}  // namespace Harvane::RT::Modules::Daq::Test
