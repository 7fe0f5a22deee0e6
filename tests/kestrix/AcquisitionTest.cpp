#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "modules/daq/daqdevices/kestrix/src/DspControl.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/DaqException.h"
#include "tests/kestrix/KestrixFixture.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;
using kestrixsim::Stream;

namespace {

constexpr uint64_t adcEnableWord = 0xA0200000;
constexpr uint64_t triggerWord = 0xA0200004;

uint64_t dspWord(int module, uint64_t offset) {
    return 0xA0000000 + (static_cast<uint64_t>(module) << 16) + offset;
}

// A buffer in somebody else's memory: it can't be resized.
class FixedBuffer : public IChannelBuffer {
public:
    FixedBuffer(unsigned long capacity, unsigned long sampleSize)
        : capacity_(capacity), sampleSize_(sampleSize), data_(capacity * sampleSize) {}

    unsigned long getCapacity() const override { return capacity_; }
    void setCapacity(unsigned long) override {}
    unsigned long getSize() const override { return capacity_; }
    void setSize(unsigned long) override {}
    unsigned long getPosition() override { return position_; }
    void setPosition(unsigned long position) override { position_ = position; }
    void reset() override { position_ = 0; }
    bool isEmpty() override { return false; }
    unsigned long getSampleSize() override { return sampleSize_; }
    void* getData() override { return data_.data(); }
    void addSample(const void*) override {}
    void incrementSamplePosition(unsigned long count) override { position_ = (position_ + count) % capacity_; }
    void* getSample(unsigned long index) override { return data_.data() + index * sampleSize_; }
    double getSampleInDouble(unsigned long) override { return 0.0; }

private:
    unsigned long capacity_;
    unsigned long sampleSize_;
    unsigned long position_ = 0;
    std::vector<unsigned char> data_;
};

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
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
        EXPECT_EQ(kestrixsim::instrument().registerWord(adcEnableWord) & 1, 1u);
        EXPECT_EQ(kestrixsim::instrument().registerWord(triggerWord) & 0xFFFF, 0x0003u);
        // Two seconds a ring: at 1000 Hz this is more than once around.
        acquireCounting({0, 1}, 2200);
        EXPECT_GE(channel(3).samplesAcquired, 400u);
        EXPECT_LT(channel(3).samplesAcquired, 700u);
        EXPECT_EQ(channel(2).samplesAcquired, 0u);
        stop();
        EXPECT_EQ(kestrixsim::instrument().registerWord(adcEnableWord) & 1, 0u);
        EXPECT_FALSE(kestrixsim::instrument().statistics(0, Stream::Raw).started);
        EXPECT_EQ(kestrixsim::instrument().statistics(0, Stream::Raw).samplesDropped, 0u);
        EXPECT_EQ(channel(0).buffer->getCapacity(), 0u);
    }
}

TEST_F(AcquisitionTest, ChannelOfAnEmptySlotIsPassedOver) {
    Scenario scenario = fastScenario(2);
    scenario.modules.erase(scenario.modules.begin());
    bringUp(scenario);
    use({0, 1, 2, 3});
    start();
    EXPECT_FALSE(channel(0).active);
    EXPECT_EQ(kestrixsim::instrument().registerWord(triggerWord) & 0xFFFF, 0x0002u);
    EXPECT_EQ(kestrixsim::instrument().registerWord(dspWord(0, 0x124)) & 3, 0u);
    acquireCounting({2, 3}, 300);
    EXPECT_EQ(channel(0).samplesAcquired, 0u);
    EXPECT_EQ(channel(1).samplesAcquired, 0u);
    stop();
}

TEST_F(AcquisitionTest, DspChainFollowsRatesAndUse) {
    bringUp(warmScenario(3));
    use({0, 3});
    controller->setSampleRate(10000);
    channel(3).setRate(2500);
    prepare();
    const auto word = [](int module, uint64_t offset) {
        return kestrixsim::instrument().registerWord(dspWord(module, offset));
    };
    EXPECT_EQ(word(0, 0x10C), 1500u);
    EXPECT_EQ(word(0, 0x130), 0xFFFFFFFFu);
    EXPECT_EQ(word(0, 0x124) & 3, 2u);
    uint32_t halfBands = 0;
    uint64_t ratio = 0;
    ASSERT_TRUE(DspControl::calculateRatioValue(15000000, 2500, halfBands, ratio));
    EXPECT_EQ(word(1, 0x100), static_cast<uint32_t>(ratio));
    EXPECT_EQ(word(1, 0x108) & 31, halfBands);
    EXPECT_EQ(word(1, 0x124) & 3, 1u);
    EXPECT_EQ(word(2, 0x124) & 3, 0u);
    controller->startAcquisition();
    stop();
    EXPECT_EQ(word(0, 0x124) & 3, 0u);
    EXPECT_EQ(word(1, 0x124) & 3, 0u);
}

TEST_F(AcquisitionTest, RawDecimationFollowsTheDividerAndNotTheTruncatedRate) {
    bringUp(warmScenario(1));
    use({0});
    channel(0).setSRDiv(7);
    EXPECT_EQ(channel(0).getRate(), 142);
    start();
    EXPECT_EQ(kestrixsim::instrument().registerWord(dspWord(0, 0x10C)), 105000u);
    stop();
}

TEST_F(AcquisitionTest, PhaseDelayOfFilteredChannelsIsInSamples) {
    bringUp(warmScenario(1));
    use({0, 1});
    controller->setSampleRate(50000);
    controller->prepareAcquisition();
    EXPECT_EQ(channel(0).phaseDelay, 0);
    EXPECT_EQ(channel(1).phaseDelay, 41);  // 0.82101 ms
}

TEST_F(AcquisitionTest, DescriptorsDivideTheBuffer) {
    bringUp(warmScenario(1));
    struct Case {
        int deviceRate;
        int filteredRate;
        int rawSize;
        int filteredSize;
    };
    const Case cases[] = {
        {1000, 1000, 248, 500},
        {1000000, 500000, 250000, 200000},
        {3750000, 1875000, 937500, 200000},
        {100, 100, 24, 48},
    };
    use({0, 1});
    for (const Case& expected : cases) {
        controller->setSampleRate(expected.deviceRate);
        channel(1).setRate(expected.filteredRate);
        start();
        const auto raw = kestrixsim::instrument().statistics(0, Stream::Raw);
        const auto filtered = kestrixsim::instrument().statistics(0, Stream::Filtered);
        EXPECT_EQ(raw.descriptorSize, expected.rawSize) << expected.deviceRate;
        EXPECT_EQ(filtered.descriptorSize, expected.filteredSize) << expected.deviceRate;
        EXPECT_EQ(channel(0).buffer->getCapacity() * 2 % static_cast<unsigned long>(raw.descriptorSize), 0u);
        EXPECT_EQ(channel(1).buffer->getCapacity() * 4 % static_cast<unsigned long>(filtered.descriptorSize), 0u);
        stop();
    }
}

TEST_F(AcquisitionTest, BuffersWithoutADescriptorSizeKeepTheLastOne) {
    bringUp(warmScenario(1));
    use({});
    struct Case {
        unsigned long capacity;  // samples of 4 bytes
        int size;
    };
    for (const Case& expected : {Case{0, 1000}, Case{3, 1000}, Case{13, 1000}, Case{23, 1000}, Case{17, 4}}) {
        channel(1).buffer = std::make_shared<FixedBuffer>(expected.capacity, 4);
        ai().getKernels()[1]->bdSize = 1000;
        prepare();
        EXPECT_EQ(kestrixsim::instrument().statistics(0, Stream::Filtered).descriptorSize, expected.size)
            << expected.capacity;
        stop();
    }
}

TEST_F(AcquisitionTest, TooLittleRoomIsNoFailure) {
    bringUp(fastScenario(1));
    use({0});
    start();
    acquire(channel(0), 300);
    const auto reads = kestrixsim::instrument().statistics(0, Stream::Raw).reads;
    const uint64_t samples = channel(0).samplesAcquired;
    const unsigned long capacity = channel(0).buffer->getCapacity();
    channel(0).buffer->setPosition(capacity - 10);  // 20 bytes, less than the descriptor's 248
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    controller->acquireData();
    EXPECT_EQ(channel(0).samplesAcquired, samples);
    EXPECT_EQ(kestrixsim::instrument().statistics(0, Stream::Raw).reads, reads);
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
    const auto reads = kestrixsim::instrument().statistics(0, Stream::Raw).reads;
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    controller->acquireData();
    EXPECT_EQ(kestrixsim::instrument().statistics(0, Stream::Raw).reads, reads + 2);
    EXPECT_GE(channel(0).samplesAcquired, seen + 2 * bdSamples);
    EXPECT_EQ(channel(0).buffer->getPosition(), channel(0).samplesAcquired % channel(0).buffer->getCapacity());
    expectCounting(channel(0), seen);
    stop();
}

TEST_F(AcquisitionTest, DescriptorsInPartsDontStallTheStream) {
    Fault fault;
    fault.kind = FaultKind::DmaShortRead;
    fault.code = 1;
    fault.times = -1;
    bringUp(fastScenario(1));
    kestrixsim::instrument().inject(fault);
    use({0, 1});
    start();
    acquireCounting({0, 1}, 4500);  // more than twice around
    stop();
}

TEST_F(AcquisitionTest, FailingReadEndsTheCycleAndTheNextOneGoesOn) {
    bringUp(fastScenario(2));
    use({0, 2});
    start();
    Fault fault;
    fault.kind = FaultKind::DmaRead;
    fault.target = 0;
    fault.code = EIO;
    kestrixsim::instrument().inject(fault);
    try {
        controller->acquireData();
        ADD_FAILURE();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "DMA device read failed");
    }
    acquireCounting({0, 2}, 500);
    stop();
}

TEST_F(AcquisitionTest, StalledStreamIsNoticed) {
    bringUp(fastScenario(2));
    use({0, 2});
    start();
    Fault fault;
    fault.kind = FaultKind::DmaStall;
    fault.target = 2;
    fault.times = -1;
    kestrixsim::instrument().inject(fault);
    EXPECT_THROW(acquire(channel(0), 100000), DataLostException);
    EXPECT_GT(channel(0).samplesAcquired, 1488u);  // three quarters of two seconds
    EXPECT_LT(channel(0).samplesAcquired, 2100u);
    stop();
}

TEST_F(AcquisitionTest, UsbModeIsThatOfTheWholeRun) {
    bringUp(fastScenario(1));
    use({0});
    std::string result;
    device().ioctl(1, "On", result);
    start();
    EXPECT_TRUE(channel(0).noReserve);
    device().ioctl(1, "Off", result);  // for the next run
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    controller->acquireData();
    EXPECT_EQ(channel(0).samplesAcquired, 0u);
    // A stop in the other mode would be refused here.
    Fault fault;
    fault.kind = FaultKind::DmaIoctl;
    fault.code = 0x40064C09;
    fault.times = -1;
    kestrixsim::instrument().inject(fault);
    EXPECT_NO_THROW(stop());
    kestrixsim::instrument().clearFaults();
    EXPECT_FALSE(kestrixsim::instrument().statistics(0, Stream::Raw).started);

    start();
    EXPECT_FALSE(channel(0).noReserve);
    acquireCounting({0}, 300);
    stop();
}

TEST_F(AcquisitionTest, RefusedStartFailsAndCanBeRepeated) {
    bringUp(fastScenario(1));
    use({0});
    Fault fault;
    fault.kind = FaultKind::ClearNever;
    kestrixsim::Fault never = fault;
    never.times = -1;
    kestrixsim::instrument().inject(never);
    EXPECT_THROW(start(), std::runtime_error);
    kestrixsim::instrument().clearFaults();
    start();
    acquireCounting({0}, 300);
    stop();
}

TEST_F(AcquisitionTest, StreamThatDoesntStartStopsTheOthers) {
    bringUp(fastScenario(1));
    use({0, 1});
    Fault fault;
    fault.kind = FaultKind::DmaIoctl;
    fault.target = 1;
    fault.code = 0x40064C08;
    kestrixsim::instrument().inject(fault);
    EXPECT_THROW(start(), std::runtime_error);
    EXPECT_FALSE(kestrixsim::instrument().statistics(0, Stream::Raw).started);
    start();
    acquireCounting({0, 1}, 300);

    // A host that prepares anew without having stopped.
    start();
    acquireCounting({0, 1}, 300);
    stop();
}

TEST_F(AcquisitionTest, OnlyAStandaloneInstrumentStartsByItself) {
    bringUp(warmScenario(1));
    use({1});
    controller->setSynchronization({SynchronizationMode::Standalone, {SynchronizationMode::Ptp}});
    start();
    EXPECT_EQ(kestrixsim::instrument().registerWord(triggerWord) & 0xFFFF, 0x0100u);
    stop();
    EXPECT_EQ(kestrixsim::instrument().registerWord(triggerWord) & 0xFFFF, 0u);
}

TEST_F(AcquisitionTest, CountersStandInForConvertersWithoutSupply) {
    bringUp(fastScenario(1));
    use({0});
    ai().setSimulationMode(true);
    EXPECT_EQ(kestrixsim::instrument().registerWord(0xA6000010) & 255, 0u);
    start();
    EXPECT_EQ(kestrixsim::instrument().registerWord(adcEnableWord) & 1, 0u);
    EXPECT_EQ(kestrixsim::instrument().registerWord(0xA0200078) >> 16, 0x0101u);
    acquire(channel(0), 100);
    stop();
}

TEST_F(AcquisitionTest, OtherClockRunsAtItsOwnRates) {
    bringUp(fastScenario(1));
    use({0, 1});
    ai().setBaseClock(10000000);
    controller->setSampleRate(controller->checkSampleRate(16000));
    EXPECT_EQ(controller->sampleRate, 16000);
    start();
    EXPECT_EQ(kestrixsim::instrument().registerWord(dspWord(0, 0x10C)), 625u);
    acquireCounting({0, 1}, 4000);
    stop();
}

}  // namespace
