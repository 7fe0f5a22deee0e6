#include <gtest/gtest.h>

#include <limits>
#include <tuple>

#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/Channels.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

// A channel with a buffer of this many slots, in the middle of an acquisition.
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

}  // namespace

TEST(Channel, BufferHoldsTwoSecondsInWholeGrains) {
    for (const auto& [type, rate, granularity, active, capacity] :
         {std::tuple{SampleType::Async, 5000, 1u, true, 10000u},
          {SampleType::Sync, 1000, 16u, true, 2000u},
          {SampleType::Sync, 1001, 16u, true, 2000u},
          {SampleType::Sync, 100, 32u, true, 192u},
          {SampleType::Sync, 1000, 16u, false, 0u},
          {SampleType::SingleValue, 700, 1u, true, 2u},
          {SampleType::Async, 0, 1u, true, 0u},
          {SampleType::Async, -5, 1u, true, 0u},
          {SampleType::Sync, 10, 0u, true, 20u},
          {SampleType::Sync, 4, 16u, true, 0u}}) {
        Channel channel(0);
        channel.sampleType = type;
        channel.deviceRate = channel.asyncRate = rate;
        channel.bufferGranularity = granularity;
        channel.active = active;
        EXPECT_EQ(channel.calculateBufferCapacity(), capacity) << rate << " " << granularity;
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
    for (const auto& [type, request, rate] : {std::tuple{SampleType::Sync, 250, 250},
                                              {SampleType::Sync, 300, 333},
                                              {SampleType::Sync, 5000, 1000},
                                              {SampleType::Sync, 0, 1000},
                                              {SampleType::Sync, -1000, 1000},
                                              {SampleType::Async, 77, 77},
                                              {SampleType::SingleValue, 77, 1}}) {
        Channel channel(0);
        channel.sampleType = type;
        channel.setRate(request);
        channel.setSRDiv(0);
        channel.setSRDiv(-1);
        EXPECT_EQ(channel.getRate(), rate) << request;
    }
}

TEST(Channel, AnalogBufferTypeFollowsTheResolution) {
    // A size of 0 means refused.
    for (const auto& [isFloat, bits, sampleSize] : {std::tuple{true, 32, 4u},
                                                    {true, 64, 8u},
                                                    {true, 16, 0u},
                                                    {false, 8, 1u},
                                                    {false, 9, 2u},
                                                    {false, 16, 2u},
                                                    {false, 17, 4u},
                                                    {false, 32, 4u},
                                                    {false, 33, 0u},
                                                    {false, 64, 0u}}) {
        AIChannel ai(0);
        AOChannel ao(0);
        for (auto [channel, resolution] : {std::pair<Channel*, int*>{&ai, &ai.resolution}, {&ao, &ao.resolution}}) {
            channel->isFloat = isFloat;
            *resolution = bits;
            if (sampleSize == 0) {
                EXPECT_THROW(channel->initialize(), InvalidTypeException) << bits;
            } else {
                channel->initialize();
                EXPECT_EQ(channel->buffer->getSampleSize(), sampleSize) << bits;
                EXPECT_EQ(channel->isFloat, isFloat);
                EXPECT_EQ(channel->timeBuffer != nullptr, channel == &ao);
            }
        }
    }
}

TEST(Channel, AnalogScaleFollowsRangeAndResolution) {
    for (const auto& [isFloat, resolution, scale] :
         {std::tuple{false, 16, 20.0 / 65536.0}, {false, 32, 20.0 / 4294967296.0}, {true, 32, 1.0}}) {
        AIChannel input(0);
        AOChannel output(0);
        input.isFloat = output.isFloat = isFloat;
        input.resolution = output.resolution = resolution;
        output.offset = 3.0;
        for (Channel* channel : std::initializer_list<Channel*>{&input, &output}) {
            channel->initialize();
            channel->initializeAcquisition();
            EXPECT_DOUBLE_EQ(channel->scale, scale) << resolution;
            EXPECT_EQ(channel->scaleValue(0.0), 0.0);
        }
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
