#include <gtest/gtest.h>

#include <limits>

#include "modules/daq/amplifier/Amplifier.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/Channels.h"

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
    for (const auto& store : {channel.buffer, channel.positionBuffer, channel.timeBuffer}) {
        EXPECT_EQ(store->getCapacity(), 0u);
    }
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
    // A time that is no number is refused before anything moves, where times are kept.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_THROW(channel->addSample(1.0, nan), InvalidTimestampException);
    EXPECT_EQ(channel->samplesThisCycle, 1u);
    EXPECT_EQ(channel->samplesAcquired, 5u);
    EXPECT_EQ(channel->buffer->getPosition(), 1u);
    EXPECT_EQ(channel->timeBuffer->getPosition(), 1u);
    EXPECT_NO_THROW(activeChannel<int>(SampleType::Sync, 4)->addSample(1, nan));
    channel->dynamicArray = true;
    EXPECT_THROW(channel->addSample(1.0, 0.0), InvalidCallException);
    EXPECT_THROW(channel->addSample(1.0f, 0.0), InvalidTypeException);
    channel->active = false;
    EXPECT_THROW(channel->addSample(1.0f, 0.0), NotActiveChannelException);
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
        SampleType type;
        int request, rate;
    };
    for (const auto& c : {Case{SampleType::Sync, 250, 250}, Case{SampleType::Sync, 300, 333},
                          Case{SampleType::Sync, 5000, 1000}, Case{SampleType::Sync, 0, 1000},
                          Case{SampleType::Sync, -1000, 1000}, Case{SampleType::Async, 77, 77},
                          Case{SampleType::SingleValue, 77, 1}}) {
        Channel channel(0);
        channel.sampleType = c.type;
        channel.setRate(c.request);
        channel.setSRDiv(0);
        channel.setSRDiv(-1);
        EXPECT_EQ(channel.getRate(), c.rate) << c.request;
    }
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
        for (auto [channel, resolution] : {std::pair<Channel*, int*>{&ai, &ai.resolution}, {&ao, &ao.resolution}}) {
            channel->isFloat = c.isFloat;
            *resolution = c.resolution;
            if (c.sampleSize == 0) {
                EXPECT_THROW(channel->initialize(), InvalidTypeException) << c.resolution;
            } else {
                channel->initialize();
                EXPECT_EQ(channel->buffer->getSampleSize(), c.sampleSize) << c.resolution;
                EXPECT_EQ(channel->isFloat, c.isFloat);
                EXPECT_EQ(channel->timeBuffer != nullptr, channel == &ao);
            }
        }
    }
}

TEST(Channel, AnalogScaleFollowsRangeAndResolution) {
    struct Case {
        bool isFloat;
        int resolution;
        double scale;
    };
    for (const auto& c : {Case{false, 16, 20.0 / 65536.0}, Case{false, 32, 20.0 / 4294967296.0},
                          Case{true, 32, 1.0}}) {
        AIChannel input(0);
        AOChannel output(0);
        input.isFloat = output.isFloat = c.isFloat;
        input.resolution = output.resolution = c.resolution;
        input.initialize();
        output.initialize();
        ASSERT_TRUE(input.amplifier);
        input.amplifier->rangeUnit = "mV/V";
        input.amplifier->addMeasurementValue("Bridge");
        input.amplifier->bridgeOffset = 0.25;
        input.initializeAcquisition();
        output.offset = 3.0;
        output.initializeAcquisition();
        EXPECT_DOUBLE_EQ(input.scale, c.scale) << c.resolution;
        EXPECT_DOUBLE_EQ(output.scale, c.scale) << c.resolution;
        EXPECT_EQ(input.scaleValue(0.0), 0.25);
        EXPECT_EQ(output.scaleValue(0.0), 0.0);
        EXPECT_EQ(input.unit, "mV/V");
        EXPECT_EQ(input.minValue, -10.0);
        EXPECT_EQ(input.maxValue, 10.0);
    }
}

TEST(CANChannel, HoldsFramesOfThePortOfItsNumber) {
    CANChannel channel(5);
    channel.index = 45;
    EXPECT_EQ(channel.getPortIndex(), 2);
    channel.initialize();
    channel.active = true;
    channel.initializeAcquisition();
    EXPECT_EQ(channel.buffer->getCapacity(), 10000u);
    channel.addSample(CanMessage{0x123, 1, {7}}, 0.1);
    EXPECT_EQ(static_cast<CanMessage*>(channel.buffer->getSample(0))->id, 0x123u);
    EXPECT_EQ(channel.getCurrentTime(), 0.1);
}

TEST(Channels, SelectInTheirOrder) {
    const Channels channels{std::make_shared<AOChannel>(0), std::make_shared<AIChannel>(1),
                            std::make_shared<AOChannel>(2)};
    EXPECT_EQ(channels.getOutChannels(), (Channels{channels[0], channels[2]}));
    EXPECT_EQ(channels.getInChannels(), (Channels{channels[1]}));
    EXPECT_FALSE(channels.getFirstActiveChannel());
    channels[1]->active = channels[2]->active = true;
    EXPECT_EQ(channels.getFirstActiveChannel(), channels[1]);
}
