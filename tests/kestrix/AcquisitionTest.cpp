#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <numbers>
#include <thread>

#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/DspControl.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/FailureOf.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;
using kestrixsim::Stream;
using kestrixtest::failureOf;

namespace {

constexpr uint64_t adcEnableWord = 0xA0200000;
constexpr uint64_t triggerWord = 0xA0200004;

uint32_t dspWord(int module, uint64_t offset) {
    return kestrixsim::instrument().registerWord(0xA0000000 + (static_cast<uint64_t>(module) << 16) + offset);
}

kestrixsim::StreamStatistics raw(int module = 0) {
    return kestrixsim::instrument().statistics(module, Stream::Raw);
}

void letStreamsRun(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

struct AcquisitionTest : KestrixFixture {
    static Scenario fastScenario(int modules) {
        Scenario scenario = warmScenario(modules);
        scenario.timeFactor = 4.0;
        return scenario;
    }
};

TEST_F(AcquisitionTest, ChannelOfAnEmptySlotIsPassedOver) {
    Scenario scenario = fastScenario(2);
    scenario.modules.erase(scenario.modules.begin());
    bringUp(scenario);
    use({0, 1, 2, 3});
    start();
    EXPECT_EQ(word(triggerWord) & 0xFFFF, 0x0002u);
    EXPECT_EQ(dspWord(0, 0x124) & 3, 0u);
    acquireCounting({2, 3}, 300);
    EXPECT_EQ(channel(0).samplesAcquired, 0u);
    EXPECT_EQ(channel(1).samplesAcquired, 0u);
    stop();
}

// From what stands in the FPGA: the taps at odd distance from the centre, the farthest one first, and the centre.
TEST_F(AcquisitionTest, WrittenFilterPassesAndStopsAsAHalfBand) {
    bringUp(warmScenario(1));
    use({1});
    prepare();
    const auto tap = [](int k) {
        return static_cast<double>(static_cast<int32_t>(dspWord(0, 4 * static_cast<uint64_t>(k)) << 5) >> 5);
    };
    std::vector<double> taps;
    for (int k = 0; k <= 32; ++k) {
        taps.push_back(tap(k) / (1 << 26));
    }
    const auto response = [&](double frequency) {  // in cycles a sample
        double sum = taps[32];
        for (int k = 0; k < 32; ++k) {
            sum += 2.0 * taps[static_cast<size_t>(k)] * std::cos(2.0 * std::numbers::pi * frequency * (63 - 2 * k));
        }
        return sum;
    };
    // 98 dB. The ripples are equal and 1.203e-5 high: one part in a million more in a single tap sticks out.
    constexpr double ripple = 1.25e-5;
    for (int step = 0; step <= 2250; ++step) {
        const double frequency = step * 0.0001;
        ASSERT_NEAR(response(frequency), 1.0, ripple) << frequency;
        ASSERT_NEAR(response(0.5 - frequency), 0.0, ripple) << 0.5 - frequency;
    }
    stop();
}

TEST_F(AcquisitionTest, DescriptorsDivideTheBuffer) {
    bringUp(warmScenario(1));
    const std::tuple<int, int, int, int> cases[] = {
        {1000, 1000, 248, 500}, {1000000, 500000, 250000, 200000}, {3750000, 1875000, 937500, 200000}};
    use({0, 1});
    for (const auto& [deviceRate, filteredRate, rawSize, filteredSize] : cases) {
        controller->setSampleRate(deviceRate);
        channel(1).setRate(filteredRate);
        prepare();
        EXPECT_EQ(raw().descriptorSize, rawSize) << deviceRate;
        EXPECT_EQ(kestrixsim::instrument().statistics(0, Stream::Filtered).descriptorSize, filteredSize);
        EXPECT_EQ(channel(0).buffer->getCapacity() * 2 % static_cast<unsigned long>(raw().descriptorSize), 0u);
        stop();
    }
    // Buffers that no size fits keep the last one. Rates that no tree gives, for capacities of any size.
    channel(0).bufferGranularity = 1;
    for (const auto& [rate, size] : {std::pair{34, 8}, {13, 1000}, {26, 1000}, {46, 1000}, {0, 1000}}) {
        use({0});
        channel(0).used = rate != 0;
        channel(0).deviceRate = rate;
        ai().getKernels()[0]->bdSize = 1000;
        prepare();
        EXPECT_EQ(raw().descriptorSize, size) << rate;
        stop();
    }
}

// A buffer that no descriptor fits: nothing is read.
TEST_F(AcquisitionTest, TooLittleRoomIsNoFailure) {
    bringUp(fastScenario(1));
    use({0});
    channel(0).bufferGranularity = 1;
    channel(0).deviceRate = 13;
    ai().getKernels()[0]->bdSize = 54;  // of two seconds with 52 bytes
    start();
    letStreamsRun(700);  // a descriptor takes 0.52 s
    controller->acquireData();
    EXPECT_EQ(raw().reads, 0u);
    EXPECT_EQ(channel(0).samplesAcquired, 0u);
    stop();
}

TEST_F(AcquisitionTest, ReadThatEndsAtTheStoragesEndIsFollowedByOneFromItsStart) {
    bringUp(fastScenario(1));
    use({0});
    start();
    const unsigned long bdSamples = static_cast<unsigned long>(ai().getKernels()[0]->bdSize) / 2;
    // One descriptor before the end, then wait until several are ready: 124 samples take 124 ms.
    while (channel(0).buffer->getPosition() != channel(0).buffer->getCapacity() - bdSamples) {
        ASSERT_NO_FATAL_FAILURE(acquire(channel(0), channel(0).samplesAcquired + 1));
    }
    uint64_t seen = channel(0).samplesAcquired;
    const auto reads = raw().reads;
    letStreamsRun(400);
    controller->acquireData();
    EXPECT_EQ(raw().reads, reads + 2);
    EXPECT_GE(channel(0).samplesAcquired, seen + 2 * bdSamples);
    expectCounting(channel(0), seen);
    stop();
}

TEST_F(AcquisitionTest, DescriptorsInPartsDontStallTheStream) {
    bringUp(fastScenario(1));
    inject({.kind = FaultKind::DmaShortRead, .code = 1, .times = -1});
    use({0, 1});
    start();
    acquireCounting({0, 1}, 4500);  // more than twice around
    stop();
}

// Converters are started behind the streams that take what comes, and nothing is left in a chain.
TEST_F(AcquisitionTest, StartAndStopGoThroughTheHardwareInOrder) {
    using Strings = std::vector<std::string>;
    bringUp(fastScenario(2));
    takeJournal();
    use({0, 3});
    start();
    EXPECT_EQ(takeJournal(),
              (Strings{"clear 0", "clear 1", "size r0 248", "size f0 234375", "size r1 937500", "size f1 500",
                       "raw 0 on", "filtered 1 on", "start r0", "start f0", "start r1", "start f1", "converters on"}));
    EXPECT_NO_FATAL_FAILURE(acquireCounting({0, 3}, 300));
    const Strings end{"converters off", "raw 0 off", "filtered 1 off", "stop r0", "stop f0",
                      "stop r1",        "stop f1",   "clear 0",        "clear 1"};
    stop();
    EXPECT_EQ(takeJournal(), end);
    start();
    takeJournal();
    controller->systemDevice->abortAcquisition();
    EXPECT_EQ(takeJournal(), end);
}

// Prepared or only set up, and that twice: what comes next begins with nothing on.
TEST_F(AcquisitionTest, RunThatWasNotStoppedLeavesNothingOn) {
    bringUp(fastScenario(1));
    use({0, 1});
    start();
    for (const bool prepared : {true, false, false}) {
        ASSERT_NO_FATAL_FAILURE(acquireCounting({0, 1}, 300));
        if (prepared) {
            controller->systemDevice->prepareAcquisition(true);
            EXPECT_EQ(whatIsOn(), "");
        }
        for (int i = 0; i < 2; ++i) {
            setUpRun();
            letStreamsRun(100);
            controller->acquireData();
            EXPECT_EQ(channel(0).samplesAcquired + channel(1).samplesAcquired, 0u);
            EXPECT_EQ(whatIsOn(), "chain 0, r0, f0");
        }
        controller->systemDevice->startAcquisition(true);
    }
    // An abort may come twice.
    for (int i = 0; i < 2; ++i) {
        controller->systemDevice->abortAcquisition();
        EXPECT_EQ(whatIsOn(), "");
        EXPECT_NO_THROW(controller->systemDevice->acquireData());
    }
    // A program that was killed.
    takeDown();
    DspControl chain(std::make_shared<Harvane::ZornLib::Devices::Embedded::MmapRegisterAccess>("/dev/mem"), 0);
    chain.configureDspLogic(15000000, 1000, 0);
    chain.enableSampleProcessing();
    EXPECT_EQ(whatIsOn(), "chain 0");
    KestrixDevice().createAIDevice();
    EXPECT_EQ(whatIsOn(), "");
}

TEST_F(AcquisitionTest, StreamsThatCannotBeStoppedRefuseTheNextStart) {
    const auto refuse = [](int target, int code, int64_t times = 1) {
        inject({.kind = FaultKind::DmaIoctl, .target = target, .code = code, .times = times});
    };
    constexpr int startRequest = 0x40064C08;
    constexpr int stopRequest = 0x40064C09;
    bringUp(fastScenario(2));
    use({0, 1, 2, 3});
    for (const bool starting : {true, false}) {
        const char* const left = starting ? "f0" : "r1, f1";
        if (starting) {
            refuse(2, startRequest);
            refuse(1, stopRequest);
            EXPECT_EQ(failureOf([&] { start(); }), "START_TRANSFER ioctl error");
        } else {
            start();
            refuse(2, stopRequest);
            refuse(3, stopRequest);
            EXPECT_EQ(failureOf([&] { stop(); }), "STOP_TRANSFER ioctl error");
        }
        EXPECT_EQ(whatIsOn(), left);
        refuse(-1, stopRequest, -1);
        EXPECT_EQ(failureOf([&] { start(); }), "STOP_TRANSFER ioctl error");
        EXPECT_EQ(failureOf([&] { setUpRun(); }), "STOP_TRANSFER ioctl error");
        EXPECT_EQ(whatIsOn(), left);
        // A cycle that comes all the same has nowhere to read into.
        inject({.kind = FaultKind::DmaRead, .code = EIO});
        EXPECT_NO_THROW(ai().acquireData());
        clearFaults();
        start();
        ASSERT_NO_FATAL_FAILURE(acquireCounting({0, 1, 2, 3}, 300));
        stop();
        EXPECT_EQ(whatIsOn(), "");
    }
    // The chains are cleared in the end; that of the first module never, the second one's all the same.
    start();
    takeJournal();
    inject({.kind = FaultKind::ClearNever, .target = 0, .times = -1});
    EXPECT_EQ(failureOf([&] { stop(); }), "DspControl::Clear process status timeout");
    EXPECT_EQ(std::ranges::count(takeJournal(), "clear 1"), 1);
}

TEST_F(AcquisitionTest, CountersStandInForConvertersWithoutSupply) {
    bringUp(fastScenario(1));
    use({0});
    ai().setSimulationMode(true);
    EXPECT_EQ(word(0xA6000010) & 255, 0u);
    start();
    EXPECT_EQ(word(adcEnableWord) & 1, 0u);
    EXPECT_EQ(word(0xA0200078) >> 16, 0x0101u);
    acquire(channel(0), 100);
    stop();
}

}  // namespace
