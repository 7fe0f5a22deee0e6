#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "modules/daq/amplifier/Amplifier.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/CntChannel.h"
#include "modules/daq/objectmodel/DeviceChannels.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

/// A channel with a buffer of this many slots, in the middle of an acquisition.
template <class T>
std::unique_ptr<Channel> activeChannel(SampleType type, unsigned long capacity) {
    auto channel = std::make_unique<Channel>(0);
    channel->sampleType = type;
    channel->createChannelBuffer<T>();
    channel->active = true;
    channel->buffer->setCapacity(capacity);
    if (channel->timeBuffer) {
        channel->timeBuffer->setCapacity(capacity);
    }
    return channel;
}

/// A store in memory of the host: it can be resized and never reset.
class HostBuffer : public IChannelBuffer {
public:
    unsigned long getCapacity() const override { return capacity; }
    void setCapacity(unsigned long c) override { capacity = c; }
    unsigned long getSize() const override { return 0; }
    void setSize(unsigned long) override {}
    unsigned long getPosition() override { return 0; }
    void setPosition(unsigned long) override {}
    void reset() override { throw std::runtime_error("Not implemented"); }
    bool isEmpty() override { return true; }
    unsigned long getSampleSize() override { return 4; }
    void* getData() override { return nullptr; }
    void addSample(const void*) override {}
    void incrementSamplePosition(unsigned long) override {}
    void* getSample(unsigned long) override { return nullptr; }
    double getSampleInDouble(unsigned long) override { return 0.0; }

    unsigned long capacity = 0;
};

}

TEST(Channel, BufferHoldsTwoSecondsInWholeGrains) {
    struct Case {
        SampleType type;
        int rate;
        std::uint64_t granularity;
        bool active;
        unsigned long capacity;
    };
    for (const auto& c : {Case{SampleType::Async, 5000, 1, true, 10000}, Case{SampleType::Sync, 1000, 16, true, 2000},
                          Case{SampleType::Sync, 1001, 16, true, 2000}, Case{SampleType::Sync, 100, 32, true, 192},
                          Case{SampleType::Sync, 1000, 16, false, 0}, Case{SampleType::SingleValue, 700, 1, true, 2},
                          Case{SampleType::Async, 0, 1, true, 0}, Case{SampleType::Async, -5, 1, true, 0},
                          Case{SampleType::Sync, 10, 0, true, 20}, Case{SampleType::Sync, 4, 16, true, 0}}) {
        Channel channel(0);
        channel.sampleType = c.type;
        channel.deviceRate = c.rate;
        channel.asyncRate = c.rate;
        channel.bufferGranularity = c.granularity;
        channel.active = c.active;
        EXPECT_EQ(channel.calculateBufferCapacity(), c.capacity) << c.rate << " " << c.granularity;
    }
}

TEST(Channel, ReservesAndFreesEveryBuffer) {
    Channel channel(0);
    channel.dynamicArray = true;
    channel.arrayFactor = 2.5;
    channel.asyncRate = 10;
    channel.createChannelBuffer<float>();
    channel.active = true;
    channel.initializeAcquisition();
    EXPECT_EQ(channel.buffer->getCapacity(), 50u);
    EXPECT_EQ(channel.positionBuffer->getCapacity(), 20u);
    EXPECT_EQ(channel.timeBuffer->getCapacity(), 20u);
    channel.finalizeAcquisition();
    EXPECT_EQ(channel.buffer->getCapacity() + channel.positionBuffer->getCapacity() +
                  channel.timeBuffer->getCapacity(), 0u);
}

TEST(Channel, StartsAndEndsOnABufferThatRefusesAReset) {
    auto host = std::make_shared<HostBuffer>();
    Channel channel(0);
    channel.sampleType = SampleType::Sync;
    channel.buffer = host;
    channel.active = true;
    EXPECT_NO_THROW(channel.initializeAcquisition());
    EXPECT_EQ(host->capacity, 2000u);
    EXPECT_NO_THROW(channel.finalizeAcquisition());
    EXPECT_EQ(host->capacity, 0u);
}

TEST(Channel, RelativePositionsCountBackFromTheNextWrite) {
    auto channel = activeChannel<int>(SampleType::Async, 10);
    EXPECT_EQ(channel->getPosAtRelativePos(-1), 9u);
    for (int i = 0; i < 13; ++i) {
        channel->beforeAcquireData();
        channel->addSample(i, i * 0.5);
    }
    channel->scale = 2.0;
    channel->offset = 1.0;
    EXPECT_EQ(channel->getPosAtRelativePos(-1), 2u);
    EXPECT_EQ(channel->getPosAtRelativePos(-4), 9u);
    EXPECT_EQ(channel->getCurrentSample(), 25.0);
    EXPECT_EQ(channel->getSampleAtRelativePos(-10), 7.0);
    EXPECT_EQ(channel->getCurrentTime(), 6.0);
    EXPECT_EQ(channel->getTimeAtRelativePos(-4), 4.5);
}

TEST(Channel, AddSampleRefusesInTheOrderOfItsTests) {
    auto channel = activeChannel<double>(SampleType::Async, 4);
    EXPECT_THROW(channel->addSample(1.0f, 0.0), InvalidTypeException);
    for (int i = 0; i < 4; ++i) {
        EXPECT_NO_THROW(channel->addSample(1.0, 0.0));
    }
    EXPECT_THROW(channel->addSample(1.0, 0.0), DataLostException);
    EXPECT_EQ(channel->samplesAcquired, 4u);
    EXPECT_EQ(channel->samplesThisCycle, 4u);
    channel->beforeAcquireData();
    EXPECT_NO_THROW(channel->addSample(1.0, 0.0));
    channel->dynamicArray = true;
    EXPECT_THROW(channel->addSample(1.0, 0.0), InvalidCallException);
    EXPECT_THROW(channel->addSample(1.0f, 0.0), InvalidTypeException);
    channel->active = false;
    EXPECT_THROW(channel->addSample(1.0f, 0.0), NotActiveChannelException);
}

TEST(Channel, AnImpossibleTimeLeavesSamplesAndTimesInStep) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    auto channel = activeChannel<int>(SampleType::Async, 4);
    channel->addSample(1, 0.5);
    EXPECT_THROW(channel->addSample(2, nan), InvalidTimestampException);
    EXPECT_EQ(channel->buffer->getSize(), 1u);
    EXPECT_EQ(channel->timeBuffer->getSize(), 1u);
    EXPECT_EQ(channel->samplesThisCycle, 1u);
    EXPECT_EQ(channel->samplesAcquired, 1u);

    auto untimed = activeChannel<int>(SampleType::Sync, 4);
    EXPECT_NO_THROW(untimed->addSample(1, nan));
}

TEST(Channel, BlockOfSamplesStaysBelowTheCapacityInOneCycle) {
    auto channel = activeChannel<short>(SampleType::Sync, 8);
    EXPECT_THROW(channel->incSamplePosition(8), DataLostException);
    channel->incSamplePosition(7);
    EXPECT_THROW(channel->incSamplePosition(1), DataLostException);
    EXPECT_EQ(channel->samplesAcquired, 7u);
    EXPECT_EQ(channel->buffer->getPosition(), 7u);
    channel->beforeAcquireData();
    channel->incSamplePosition(3);
    EXPECT_EQ(channel->samplesAcquired, 10u);
    EXPECT_EQ(channel->buffer->getPosition(), 2u);
    channel->active = false;
    EXPECT_THROW(channel->incSamplePosition(1), NotActiveChannelException);
}

TEST(Channel, RateOfEachSampleType) {
    struct Case {
        int request, rate;
    };
    for (const auto& c : {Case{250, 250}, Case{300, 333}, Case{1000, 1000}, Case{5000, 1000}, Case{1, 1}}) {
        Channel channel(0);
        channel.sampleType = SampleType::Sync;
        channel.setRate(c.request);
        EXPECT_EQ(channel.getRate(), c.rate) << c.request;
    }
    Channel channel(0);
    channel.sampleType = SampleType::Sync;
    channel.setRate(100);
    for (int senseless : {0, -1, -1000}) {
        channel.setRate(senseless);
        channel.setSRDiv(senseless);
        EXPECT_EQ(channel.getRate(), 100);
    }
    channel.sampleType = SampleType::Async;
    channel.setRate(77);
    EXPECT_EQ(channel.getRate(), 77);
    channel.sampleType = SampleType::SingleValue;
    channel.setRate(77);
    EXPECT_EQ(channel.getRate(), 1);
}

TEST(Channel, AnalogBufferTypeFollowsTheResolution) {
    struct Case {
        bool isFloat;
        int resolution;
        unsigned long sampleSize;  // 0: refused
    };
    for (const auto& c : {Case{true, 32, 4}, Case{true, 64, 8}, Case{true, 16, 0}, Case{false, 8, 1}, Case{false, 9, 2},
                          Case{false, 16, 2}, Case{false, 17, 4}, Case{false, 32, 4}, Case{false, 33, 0},
                          Case{false, 64, 0}}) {
        AIChannel ai(0);
        AOChannel ao(0);
        ai.isFloat = ao.isFloat = c.isFloat;
        ai.resolution = ao.resolution = c.resolution;
        if (c.sampleSize == 0) {
            EXPECT_THROW(ai.initialize(), InvalidTypeException) << c.resolution;
            EXPECT_THROW(ao.initialize(), InvalidTypeException) << c.resolution;
            continue;
        }
        ai.initialize();
        ao.initialize();
        EXPECT_EQ(ai.buffer->getSampleSize(), c.sampleSize) << c.resolution;
        EXPECT_EQ(ao.buffer->getSampleSize(), c.sampleSize) << c.resolution;
        EXPECT_EQ(ai.isFloat, c.isFloat);
        EXPECT_FALSE(ai.timeBuffer);
        EXPECT_TRUE(ao.timeBuffer);
    }
}

TEST(AIChannel, ScaleComesFromTheAmplifierAtAnyResolution) {
    struct Case {
        bool isFloat;
        int resolution;
        double scale;
    };
    for (const auto& c : {Case{false, 16, 20.0 / 65536.0}, Case{false, 32, 20.0 / 4294967296.0},
                          Case{true, 32, 1.0}}) {
        AIChannel channel(0);
        channel.isFloat = c.isFloat;
        channel.resolution = c.resolution;
        channel.initialize();
        ASSERT_TRUE(channel.amplifier);
        channel.amplifier->rangeUnit = "mV/V";
        channel.amplifier->addMeasurementValue("Bridge");
        channel.amplifier->bridgeOffset = 0.25;
        channel.initializeAcquisition();
        EXPECT_DOUBLE_EQ(channel.scale, c.scale) << c.resolution;
        EXPECT_EQ(channel.scaleValue(0.0), 0.25);
        EXPECT_EQ(channel.unit, "mV/V");
        EXPECT_EQ(channel.minValue, -10.0);
        EXPECT_EQ(channel.maxValue, 10.0);
    }
}

TEST(AOChannel, ScaleComesFromTheRange) {
    AOChannel channel(0);
    channel.initialize();
    channel.offset = 3.0;
    channel.initializeAcquisition();
    EXPECT_DOUBLE_EQ(channel.scale, 20.0 / 4294967296.0);
    EXPECT_EQ(channel.offset, 0.0);
    channel.isFloat = true;
    channel.prepareScaleFactors();
    EXPECT_EQ(channel.scale, 1.0);
}

TEST(CntChannel, OnlyTheCountChannelHasSettings) {
    CntChannel channel(0);
    for (const auto& [name, has] : {std::pair{"Count", true}, {"Counter", false}, {"Coun", false}, {"", false}}) {
        channel.name = name;
        EXPECT_EQ(channel.hasCntSettings(), has) << name;
    }
    channel.initialize();
    EXPECT_EQ(channel.buffer->getSampleSize(), 4u);
}

TEST(CANChannel, PortFollowsTheNumberAndNotThePlaceInTheTree) {
    for (const auto& [number, port] : {std::pair{0, 0}, {1, 0}, {2, 1}, {5, 2}}) {
        CANChannel channel(number);
        channel.index = 40 + number;
        EXPECT_EQ(channel.getPortIndex(), port);
    }
    CANChannel channel(0);
    channel.initialize();
    channel.active = true;
    channel.initializeAcquisition();
    EXPECT_EQ(channel.buffer->getCapacity(), 10000u);
    EXPECT_EQ(channel.timeBuffer->getCapacity(), 10000u);
    channel.addSample(CanMessage{0x123, 1, {7}}, 0.1);
    EXPECT_EQ(static_cast<CanMessage*>(channel.buffer->getSample(0))->id, 0x123u);
    EXPECT_THROW(channel.getCurrentSample(), InvalidCallException);
}

TEST(DeviceChannels, ActiveFollowsUseNeedModeAndAbility) {
    struct Case {
        bool used, enableFirst, enabled;
        OperationMode mode;
        bool active;
    };
    for (const auto& c : {Case{true, false, true, 1, true}, Case{false, true, true, 1, true},
                          Case{false, false, true, 1, false}, Case{false, false, true, 0, true},
                          Case{true, true, false, 1, false}, Case{false, false, false, 0, false},
                          Case{false, false, true, 2, false}}) {
        DeviceChannels channels;
        auto channel = std::make_shared<CntChannel>(0);
        channel->initialize();
        channel->used = c.used;
        channel->enableFirst = c.enableFirst;
        channel->enabled = c.enabled;
        channel->samplesAcquired = 99;
        channels.push_back(channel);
        channels.operationMode = c.mode;
        channels.initializeAcquisition();
        EXPECT_EQ(channel->active, c.active);
        EXPECT_EQ(channels.activeChannelCount, c.active ? 1 : 0);
        EXPECT_EQ(channel->buffer->getCapacity(), c.active ? 2000u : 0u);
        EXPECT_EQ(channel->samplesAcquired, 0u);
    }
}

TEST(Channels, QueriesSelectInOrderAndCompareAtTheFullRate) {
    Channels channels;
    EXPECT_EQ(channels.getMinSamplesAcquired(), 0u);
    EXPECT_FALSE(channels.getFirstActiveChannel());
    struct Case {
        SampleType type;
        bool active, control;
        int divider;
        std::uint64_t samples;
    };
    for (const auto& c : {Case{SampleType::Sync, false, false, 1, 5000}, Case{SampleType::Async, true, true, 1, 9000},
                          Case{SampleType::Sync, true, false, 4, 250}, Case{SampleType::Sync, true, true, 1, 999}}) {
        auto channel = std::make_shared<Channel>(static_cast<int>(channels.size()));
        channel->sampleType = c.type;
        channel->active = c.active;
        channel->isControl = c.control;
        channel->srDiv = c.divider;
        channel->samplesAcquired = c.samples;
        channels.push_back(channel);
    }
    EXPECT_EQ(channels.getMinSamplesAcquired(), 999u);
    EXPECT_EQ(channels.getMaxSamplesAcquired(), 1000u);
    EXPECT_EQ(channels.getFirstActiveChannel(), channels[1]);
    EXPECT_EQ(channels.getActiveChannels(), (Channels{channels[1], channels[2], channels[3]}));
    EXPECT_EQ(channels.getChannelsBySampleType(SampleType::Async), (Channels{channels[1]}));
    EXPECT_EQ(channels.getOutChannels(), (Channels{channels[1], channels[3]}));
    EXPECT_EQ(channels.getInChannels(), (Channels{channels[0], channels[2]}));
}
