#include <cerrno>
#include <chrono>
#include <thread>

#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/DaqException.h"
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

class AcquisitionTest : public KestrixFixture {
protected:
    // Every sample of a counter stream has its own number as its value. Checks what came since the last call.
    void expectCounting(Channel& channel, uint64_t& seen) {
        const uint64_t capacity = channel.buffer->getCapacity();
        const bool filtered = channel.buffer->getSampleSize() == 4;
        ASSERT_LT(channel.samplesAcquired - seen, capacity);
        for (; seen < channel.samplesAcquired; ++seen) {
            const double value = channel.buffer->getSampleInDouble(seen % capacity);
            const double expected = filtered ? static_cast<int32_t>(static_cast<uint32_t>(seen))
                                             : static_cast<int16_t>(static_cast<uint16_t>(seen));
            ASSERT_EQ(value, expected) << channel.name << " sample " << seen;
        }
    }

    // Runs the cycle over all the channels given until each has so many samples, checking each of them.
    void acquireCounting(std::initializer_list<int> numbers, uint64_t samples) {
        std::vector<uint64_t> seen(ai().channels.size(), 0);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (bool complete = false; !complete;) {
            controller->acquireData();
            complete = true;
            for (const int number : numbers) {
                ASSERT_NO_FATAL_FAILURE(expectCounting(channel(number), seen[static_cast<size_t>(number)]));
                complete = complete && channel(number).samplesAcquired >= samples;
            }
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            letStreamsRun(1);
        }
    }

    static Scenario fastScenario(int modules) {
        Scenario scenario = warmScenario(modules);
        scenario.timeFactor = 4.0;
        return scenario;
    }
};

TEST_F(AcquisitionTest, EverySampleArrivesOnceAndInOrderTwiceInARow) {
    bringUp(fastScenario(2));
    use({0, 1, 3});
    channel(3).setRate(250);
    for (int run = 0; run < 2; ++run) {
        start();
        EXPECT_EQ(word(adcEnableWord) & 1, 1u);
        EXPECT_EQ(word(triggerWord) & 0xFFFF, 0x0003u);
        // Two seconds a ring: at 1000 Hz this is more than once around.
        acquireCounting({0, 1}, 2200);
        EXPECT_GE(channel(3).samplesAcquired, 400u);
        EXPECT_LT(channel(3).samplesAcquired, 700u);
        EXPECT_EQ(channel(2).samplesAcquired, 0u);
        stop();
        EXPECT_EQ(word(adcEnableWord) & 1, 0u);
        EXPECT_EQ(dspWord(0, 0x124) & 3, 0u);
        EXPECT_FALSE(raw().started);
        EXPECT_EQ(raw().samplesDropped, 0u);
        EXPECT_EQ(channel(0).buffer->getCapacity(), 0u);
    }
}

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

TEST_F(AcquisitionTest, DspChainFollowsRatesAndUse) {
    bringUp(warmScenario(3));
    use({0, 3, 4});
    controller->setSampleRate(50000);
    channel(4).setSRDiv(7);
    EXPECT_EQ(channel(4).getRate(), 7142);
    prepare();
    EXPECT_EQ(dspWord(0, 0x10C), 300u);
    EXPECT_EQ(dspWord(0, 0x130), 0xFFFFFFFFu);
    EXPECT_EQ(dspWord(0, 0x124) & 3, 2u);
    EXPECT_EQ(dspWord(1, 0x104) & 63, 11u);  // the ratio's upper bits
    EXPECT_EQ(dspWord(1, 0x108) & 31, 6u);
    EXPECT_EQ(dspWord(1, 0x124) & 3, 1u);
    EXPECT_EQ(channel(3).phaseDelay, 41);  // 0.82101 ms
    EXPECT_EQ(channel(0).phaseDelay, 0);
    EXPECT_EQ(dspWord(2, 0x10C), 2100u);  // of the divider, not of the truncated rate
    stop();
}

TEST_F(AcquisitionTest, DescriptorsDivideTheBuffer) {
    bringUp(warmScenario(1));
    struct {
        int deviceRate;
        int filteredRate;
        int rawSize;
        int filteredSize;
    } const cases[] = {{1000, 1000, 248, 500}, {1000000, 500000, 250000, 200000}, {3750000, 1875000, 937500, 200000}};
    use({0, 1});
    for (const auto& expected : cases) {
        controller->setSampleRate(expected.deviceRate);
        channel(1).setRate(expected.filteredRate);
        prepare();
        EXPECT_EQ(raw().descriptorSize, expected.rawSize) << expected.deviceRate;
        EXPECT_EQ(kestrixsim::instrument().statistics(0, Stream::Filtered).descriptorSize, expected.filteredSize);
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

TEST_F(AcquisitionTest, TooLittleRoomIsNoFailure) {
    bringUp(fastScenario(1));
    use({0});
    start();
    acquire(channel(0), 300);
    const auto reads = raw().reads;
    const uint64_t samples = channel(0).samplesAcquired;
    channel(0).buffer->setPosition(channel(0).buffer->getCapacity() - 10);  // 20 bytes, of a descriptor's 248
    letStreamsRun(100);
    controller->acquireData();
    EXPECT_EQ(channel(0).samplesAcquired, samples);
    EXPECT_EQ(raw().reads, reads);
    stop();
}

TEST_F(AcquisitionTest, ReadThatEndsAtTheStoragesEndIsFollowedByOneFromItsStart) {
    bringUp(fastScenario(1));
    use({0});
    start();
    const unsigned long bdSamples = static_cast<unsigned long>(ai().getKernels()[0]->bdSize) / 2;
    // One descriptor before the end, then wait until several are ready: 124 samples take 31 ms.
    while (channel(0).buffer->getPosition() != channel(0).buffer->getCapacity() - bdSamples) {
        ASSERT_NO_FATAL_FAILURE(acquire(channel(0), channel(0).samplesAcquired + 1));
    }
    uint64_t seen = channel(0).samplesAcquired;
    const auto reads = raw().reads;
    letStreamsRun(120);
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

TEST_F(AcquisitionTest, FailingReadEndsTheCycleAndAStallIsNoticed) {
    bringUp(fastScenario(2));
    use({0, 2});
    start();
    inject({.kind = FaultKind::DmaRead, .target = 0, .code = EIO});
    EXPECT_EQ(failureOf([&] { controller->acquireData(); }), "DMA device read failed");
    acquireCounting({0, 2}, 500);

    inject({.kind = FaultKind::DmaStall, .target = 2, .times = -1});
    EXPECT_THROW(acquire(channel(0), 100000), DataLostException);
    EXPECT_GT(channel(0).samplesAcquired - channel(2).samplesAcquired, 1488u);  // three quarters of two seconds
    EXPECT_LT(channel(0).samplesAcquired - channel(2).samplesAcquired, 2100u);
    stop();
}

TEST_F(AcquisitionTest, UsbModeIsThatOfTheWholeRun) {
    bringUp(fastScenario(1));
    use({0});
    ai().usbMode = true;
    start();
    EXPECT_TRUE(channel(0).noReserve);
    ai().usbMode = false;  // for the next run
    letStreamsRun(100);
    controller->acquireData();
    EXPECT_EQ(channel(0).samplesAcquired, 0u);
    // A stop in the other mode would be refused here.
    inject({.kind = FaultKind::DmaIoctl, .code = 0x40064C09, .times = -1});
    EXPECT_NO_THROW(stop());
    clearFaults();
    EXPECT_FALSE(raw().started);

    start();
    EXPECT_FALSE(channel(0).noReserve);
    acquireCounting({0}, 300);
    stop();
}

TEST_F(AcquisitionTest, RefusedStartLeavesNothingRunningAndCanBeRepeated) {
    bringUp(fastScenario(1));
    use({0, 1});
    inject({.kind = FaultKind::ClearNever, .times = -1});
    EXPECT_EQ(failureOf([&] { start(); }), "DspControl::Clear process status timeout");
    clearFaults();

    inject({.kind = FaultKind::DmaIoctl, .target = 1, .code = 0x40064C08});
    EXPECT_EQ(failureOf([&] { start(); }), "START_TRANSFER ioctl error");
    EXPECT_FALSE(raw().started);
    // A cycle that comes all the same has nowhere to read into.
    inject({.kind = FaultKind::DmaRead, .code = EIO});
    EXPECT_NO_THROW(ai().acquireData());
    clearFaults();

    start();
    acquireCounting({0, 1}, 300);
    // A host that prepares anew without having stopped is refused; one that unloads without having stopped is not.
    EXPECT_THROW(start(), WrongPhaseException);
    acquireCounting({0, 1}, 300);
    tearDown();
    EXPECT_FALSE(raw().started);
}

TEST_F(AcquisitionTest, OnlyAStandaloneInstrumentStartsByItself) {
    bringUp(warmScenario(1));
    use({1});
    controller->setSynchronization({SynchronizationMode::Standalone, {SynchronizationMode::Ptp}});
    start();
    EXPECT_EQ(word(triggerWord) & 0xFFFF, 0x0100u);
    stop();
    EXPECT_EQ(word(triggerWord) & 0xFFFF, 0u);
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

TEST_F(AcquisitionTest, OtherClockRunsAtItsOwnRates) {
    bringUp(fastScenario(1));
    use({0, 1});
    ai().setBaseClock(10000000);
    controller->setSampleRate(16000);
    start();
    EXPECT_EQ(dspWord(0, 0x10C), 625u);
    acquireCounting({0, 1}, 4000);
    stop();
}

}  // namespace
