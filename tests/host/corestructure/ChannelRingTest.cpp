#include <cmath>
#include <cstring>
#include <tuple>

#include "tests/host/corestructure/Helpers.h"

using namespace Harvane::RT::Core;

namespace {

size_t* positionOf(const ChannelPtr<>& channel) {
    size_t* position = nullptr;
    checkErrorInfo(channel.getBuffer().asPtr<IChannelBufferV2>()->getPositionPointer(&position));
    return position;
}

template <class T>
void writeSamples(const ChannelPtr<>& channel, std::initializer_list<T> samples) {
    auto buffer = channel.getBuffer();
    for (const T sample : samples) {
        std::memcpy(buffer.getSample(*positionOf(channel)), &sample, sizeof sample);
        checkErrorInfo(channel->incrementSamplePosition(1));
    }
}

double sampleAt(const ChannelPtr<>& channel, size_t position) {
    double value = 0.0;
    checkErrorInfo(channel->getSampleAtPos(position, &value));
    return value;
}

}  // namespace

TEST(ChannelMemory, HoldsTwoSecondsInWholeMultiples) {
    // Rate, multiple (0: the property is not there), capacity.
    const std::tuple<Ratio, int64_t, size_t> cases[] = {
        {{1000, 1}, 0, 2000},
        {{1000, 1}, 1, 2000},
        {{1000, 1}, 64, 1984},
        {{1000, 1}, 2000, 2000},
        {{1000, 1}, 2001, 2001},
        {{1, 1}, 0, 2},
        {{1, 4}, 0, 1},
        {{3, 4}, 0, 1},
        {{0, 1}, 0, 1},
        {{0, 1}, 32, 32},
        {{-5, 1}, 16, 16},
        {{1000, 1}, -3, 2000},
        {{46875, 2}, 16, 46864},
        {{10000000, 9}, 0, 2222222},
        {{5000000, 1}, 512, 9999872},
    };
    for (const auto& [rate, multiple, capacity] : cases) {
        SCOPED_TRACE(textOf(toValue(rate)) + " x " + std::to_string(multiple));
        const auto channel = syncChannel(SampleDataType::Int32);
        channel.setUsed(true);
        channel.setSampleRate(rate);
        if (multiple != 0) {
            channel.setPropertyValue("BufferSizeIsMultipleOf", multiple);
        }
        checkErrorInfo(channel->initializeAcquisition());
        EXPECT_EQ(channel.getBuffer().getCapacity(), capacity);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(channel.getBuffer().getData()) % 4096, 0u);
    }
}

TEST(ChannelMemory, AbsurdRateIsRefusedWithoutMemory) {
    const auto channel = syncChannel(SampleDataType::Float64, "17");
    reserve(channel, 100);
    channel.setSampleRate({std::numeric_limits<int64_t>::max(), 1});
    EXPECT_THROW(checkErrorInfo(channel->initializeAcquisition()), NoMemoryException);
    EXPECT_EQ(channel.getBuffer().getCapacity(), 0u);
    EXPECT_EQ(codeOf(channel->incrementSamplePosition(1)), Errors::OutOfRange);
    reserve(channel, 100);
    EXPECT_EQ(channel.getBuffer().getCapacity(), 100u);
}

TEST(ChannelMemory, OnlyForActiveChannelsThatWantIt) {
    for (const auto& [used, shouldReserve, capacity] :
         {std::tuple{true, true, 2000u}, {true, false, 0u}, {false, true, 0u}}) {
        const auto channel = syncChannel(SampleDataType::Int16);
        channel.setSampleRate({1000, 1});
        channel.setUsed(used);
        EXPECT_EQ(channel.getActive(), used) << "before the first run the wish counts";
        channel.setPropertyValue("ShouldReserveMemory", shouldReserve);
        checkErrorInfo(channel->initializeAcquisition());
        void* const data = channel.getBuffer().getData();
        EXPECT_EQ(data != nullptr, capacity != 0);
        // A wish that comes in a run waits for its end, and what was written can be read until the next one.
        channel.setUsed(!used);
        checkErrorInfo(channel->stopAcquisition());
        EXPECT_EQ(channel.getActive(), used);
        checkErrorInfo(channel->finalizeAcquisition());
        EXPECT_EQ(channel.getActive(), !used);
        EXPECT_EQ(channel.getBuffer().getCapacity(), capacity);
        EXPECT_EQ(channel.getBuffer().getData(), data);
    }
}

// What arrives counts, where the module says it: 142 shown are 142.857 in truth.
TEST(ChannelMemory, TwoSecondsAreThoseOfTheExactRate) {
    for (const auto& [exact, capacity] : {std::pair{Ratio{1000, 7}, 285u}, {Ratio{0, 1}, 284u}, {Ratio{-3, 1}, 284u}}) {
        const auto channel = syncChannel(SampleDataType::Int16);
        channel.setUsed(true);
        channel.setSampleRate({142, 1});
        EXPECT_EQ(channel.getExactSampleRate(), (Ratio{142, 1}));
        channel.setPropertyValue("ExactSampleRate", exact);
        EXPECT_EQ(channel.getExactSampleRate(), capacity == 285u ? exact : (Ratio{142, 1}));
        checkErrorInfo(channel->initializeAcquisition());
        EXPECT_EQ(channel.getBuffer().getCapacity(), capacity);
    }
}

TEST(ChannelMemory, EveryRunStartsZeroedAtPositionZero) {
    const auto channel = syncChannel(SampleDataType::Int32);
    size_t* const position = positionOf(channel);
    for (const int64_t capacity : {3000, 3000, 5000, 3000}) {
        reserve(channel, capacity);
        auto buffer = channel.getBuffer();
        const auto* words = static_cast<const int32_t*>(buffer.getData());
        for (size_t i = 0; i < buffer.getCapacity(); ++i) {
            ASSERT_EQ(words[i], 0) << "slot " << i;
        }
        EXPECT_EQ(*position, 0u);
        EXPECT_EQ(channel.getSamplesAcquired(), 0);
        EXPECT_TRUE(buffer.isEmpty());
        EXPECT_EQ(positionOf(channel), position) << "the module keeps this address";
        std::memset(buffer.getData(), 0x55, buffer.getCapacity() * sizeof(int32_t));
        checkErrorInfo(channel->incrementSamplePosition(7));
    }
}

TEST(ChannelRing, PositionSizeAndCountOverTheEnd) {
    const auto channel = syncChannel(SampleDataType::Int16);
    reserve(channel, 10);
    const auto buffer = channel.getBuffer();
    const std::tuple<size_t, size_t, size_t, long> rows[] = {{0, 0, 0, 0},   {4, 4, 4, 4},   {5, 9, 9, 9},
                                                             {1, 0, 10, 10}, {9, 9, 10, 19}, {9, 8, 10, 28},
                                                             {2, 0, 10, 30}, {10, 0, 10, 40}};
    for (const auto& [add, position, size, count] : rows) {
        checkErrorInfo(channel->incrementSamplePosition(add));
        EXPECT_EQ(*positionOf(channel), position);
        EXPECT_EQ(buffer.getPosition(), position);
        EXPECT_EQ(buffer.getSize(), size);
        EXPECT_EQ(channel.getSamplesAcquired(), count);
    }
    EXPECT_EQ(codeOf(channel->incrementSamplePosition(11)), Errors::OutOfRange);
    EXPECT_EQ(*positionOf(channel), 0u);
    EXPECT_EQ(channel.getSamplesAcquired(), 40);
}

TEST(ChannelRing, RawNumbersOfEveryType) {
    // Type, bytes (little-endian), number.
    const std::tuple<SampleDataType, std::vector<unsigned char>, double> cases[] = {
        {SampleDataType::Int8, {0x80}, -128.0},
        {SampleDataType::Int16, {0x00, 0x80}, -32768.0},
        {SampleDataType::Int32, {0xff, 0xff, 0xff, 0xff}, -1.0},
        {SampleDataType::Float32, {0x00, 0x00, 0x20, 0xc0}, -2.5},
        {SampleDataType::Float64, {0, 0, 0, 0, 0, 0, 0x04, 0x40}, 2.5},
    };
    for (const auto& [type, bytes, number] : cases) {
        const auto channel = syncChannel(type);
        reserve(channel, 4);
        channel.setScale(10.0);
        channel.setOffset(1.0);
        auto buffer = channel.getBuffer();
        ASSERT_EQ(buffer.getSampleSize(), bytes.size());
        std::memcpy(buffer.getSample(0), bytes.data(), bytes.size());
        checkErrorInfo(channel->incrementSamplePosition(1));
        EXPECT_EQ(buffer.getSampleInDouble(0), number) << "the buffer never scales";
        EXPECT_EQ(sampleAt(channel, 0), number * 10.0 + 1.0);
    }
}

TEST(ChannelRing, RelativePositionsCountBackFromTheNewest) {
    const auto channel = syncChannel(SampleDataType::Int16, "0", -99.0);
    reserve(channel, 4);
    channel.setOffset(0.5);
    EXPECT_EQ(channel.getSampleAtRelativePos(-1), -98.5) << "no sample: the number given at creation";
    writeSamples<int16_t>(channel, {1, 2, 3});
    EXPECT_EQ(channel.getSampleAtRelativePos(-1), 3.5);
    EXPECT_EQ(channel.getSampleAtRelativePos(-3), 1.5);
    EXPECT_EQ(channel.getSampleAtRelativePos(-4), -98.5);
    writeSamples<int16_t>(channel, {4, 5, 6});
    EXPECT_EQ(channel.getSampleAtRelativePos(-1), 6.5);
    EXPECT_EQ(channel.getSampleAtRelativePos(-4), 3.5);
    EXPECT_EQ(sampleAt(channel, 1), 6.5);

    double value = 0.0;
    for (const int position : {0, 1, -5, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(codeOf(channel->getSampleAtRelativePos(position, &value)), Errors::OutOfRange) << position;
    }
    EXPECT_EQ(codeOf(channel->getSampleAtPos(4, &value)), Errors::OutOfRange);
}

TEST(ChannelRing, NothingToReadWithoutMemoryOrNumbers) {
    EXPECT_TRUE(std::isnan(syncChannel(SampleDataType::Int32).getSampleAtRelativePos(-1)));
    const auto vector = asyncVectorChannel(16);
    reserve(vector, 8);
    EXPECT_EQ(vector.getBuffer().getSampleSize(), 16u);
    double value = 0.0;
    EXPECT_EQ(codeOf(vector->getCurrentSample(&value)), Errors::InvalidOperation);
    EXPECT_EQ(codeOf(vector->getSampleAtPos(0, &value)), Errors::InvalidOperation);
    EXPECT_EQ(codeOf(vector.getBuffer()->getSampleInDouble(0, &value)), Errors::InvalidOperation);
}

TEST(AsyncChannel, KeepsSamplesWithTheirTimes) {
    const auto channel = asyncChannel(SampleDataType::Int32);
    reserve(channel, 4);
    const auto async = channel.asPtr<IAsyncChannel>();
    for (int32_t i = 1; i <= 6; ++i) {
        checkErrorInfo(async->addSample(i * 1000L, &i));
    }

    EXPECT_EQ(channel.getSamplesAcquired(), 6) << "since the start, not what the ring holds";
    EXPECT_EQ(channel.getBuffer().getSize(), 4u);
    EXPECT_EQ(channel.getBuffer().getPosition(), 2u);
    long time = 0;
    void* address = nullptr;
    for (const auto& [slot, sample] : {std::pair<size_t, int32_t>{0, 5}, {1, 6}, {2, 3}, {3, 4}}) {
        checkErrorInfo(async->getTimestampAtPos(slot, &time));
        checkErrorInfo(async->getSampleAddressAtPos(slot, &address));
        EXPECT_EQ(time, sample * 1000L);
        EXPECT_EQ(*static_cast<int32_t*>(address), sample);
    }
    EXPECT_EQ(codeOf(async->getTimestampAtPos(4, &time)), Errors::OutOfRange);
    EXPECT_EQ(codeOf(async->getSampleAddressAtPos(4, &address)), Errors::OutOfRange);
    EXPECT_EQ(codeOf(async->addSample(0, nullptr)), Errors::ArgumentNull);

    checkErrorInfo(channel->initializeAcquisition());
    EXPECT_EQ(channel.getSamplesAcquired(), 0);
    checkErrorInfo(async->getTimestampAtPos(0, &time));
    EXPECT_EQ(time, 0);
}

TEST(AsyncChannel, WithoutMemoryStillCounts) {
    EXPECT_FALSE(syncChannel(SampleDataType::Int32).asPtrOrNull<IAsyncChannel>());
    const auto channel = asyncChannel(SampleDataType::Float64);
    const double sample = 1.0;
    checkErrorInfo(channel.asPtr<IAsyncChannel>()->addSample(1, &sample));
    EXPECT_EQ(channel.getSamplesAcquired(), 1);
    EXPECT_TRUE(channel.getBuffer().isEmpty());
    EXPECT_EQ(channel.getBuffer().getPosition(), 0u);
}
