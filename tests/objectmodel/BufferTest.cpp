#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <tuple>

#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/ChannelBuffer.h"
#include "modules/daq/objectmodel/DynArrayPositionIndex.h"
#include "modules/daq/objectmodel/FifoBuffer.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

template <class T>
void expectNumericBuffer(T value, unsigned long sampleSize, double number) {
    ChannelBuffer<T> buffer;
    buffer.setCapacity(3);
    buffer.addSample(&value);
    EXPECT_EQ(buffer.getSampleSize(), sampleSize);
    EXPECT_EQ(buffer.getSampleInDouble(0), number);
    EXPECT_EQ(static_cast<char*>(buffer.getSample(2)) - static_cast<char*>(buffer.getData()),
              static_cast<long>(2 * sampleSize));
}

}  // namespace

TEST(ChannelBuffer, NumericViewAndLayoutOfEachType) {
    expectNumericBuffer<float>(0.5f, 4, 0.5);
    expectNumericBuffer<double>(-1e300, 8, -1e300);
    expectNumericBuffer<signed char>(-128, 1, -128.0);
    expectNumericBuffer<short>(-32768, 2, -32768.0);
    expectNumericBuffer<int>(-2147483647 - 1, 4, -2147483648.0);
    expectNumericBuffer<unsigned short>(65535, 2, 65535.0);
    expectNumericBuffer<bool>(true, 1, 1.0);
    EXPECT_THROW(ChannelBuffer<CanMessage>().getSampleInDouble(0), InvalidCallException);
    EXPECT_THROW(ChannelBuffer<DynArrayPositionIndex>().getSampleInDouble(0), InvalidCallException);
}

TEST(ChannelBuffer, RingWrapsAndOverwritesTheOldest) {
    ChannelBuffer<int> buffer;
    buffer.setCapacity(10);
    for (int i = 0; i < 12; ++i) {
        buffer.addSample(&i);
        EXPECT_EQ(buffer.getPosition(), static_cast<unsigned long>(i + 1) % 10);
        EXPECT_EQ(buffer.getSize(), std::min(static_cast<unsigned long>(i + 1), 10ul));
    }
    const int expected[] = {10, 11, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(std::memcmp(buffer.getData(), expected, sizeof(expected)), 0);
}

TEST(ChannelBuffer, IncrementWrapsOnce) {
    for (const auto& [position, size, count, newPosition, newSize] :
         {std::tuple{7u, 7u, 6u, 3u, 10u}, {7u, 7u, 3u, 0u, 10u}, {0u, 0u, 9u, 9u, 9u}, {2u, 10u, 1u, 3u, 10u}}) {
        ChannelBuffer<short> buffer;
        buffer.setCapacity(10);
        buffer.setPosition(position);
        buffer.setSize(size);
        buffer.incrementSamplePosition(count);
        EXPECT_EQ(buffer.getPosition(), newPosition);
        EXPECT_EQ(buffer.getSize(), newSize);
    }
}

TEST(ChannelBuffer, EveryCapacityDropsTheContentsAndTheSameKeepsTheArray) {
    ChannelBuffer<int> buffer;
    buffer.setCapacity(10);
    const void* array = buffer.getData();
    for (unsigned long capacity : {10, 20, 0}) {
        buffer.incrementSamplePosition(5);
        buffer.setCapacity(capacity);
        EXPECT_EQ(buffer.getCapacity(), capacity);
        EXPECT_EQ(buffer.getPosition(), 0u);
        EXPECT_TRUE(buffer.isEmpty());
        EXPECT_EQ(buffer.getData() == array, capacity == 10);
    }
}

namespace {

using Bytes = std::vector<unsigned char>;

struct Fifo : testing::Test {
    void fillAt(unsigned long readPos, unsigned long count) {
        fifo.setCapacity(10);
        fifo.incrementWritePosition(readPos);
        fifo.incrementReadPosition(readPos);
        Bytes bytes(count);
        std::iota(bytes.begin(), bytes.end(), 1);
        ASSERT_EQ(fifo.writeSamples(bytes.data(), count, true), count);
    }
    Bytes take(unsigned long count, bool increment, unsigned long offset = 0) {
        Bytes bytes(count);
        bytes.resize(fifo.readSamplesAt(bytes.data(), count, increment, offset));
        return bytes;
    }
    FifoBuffer<unsigned char> fifo;
};

}  // namespace

TEST_F(Fifo, WritesWhatFitsAndNeverOverwrites) {
    fillAt(0, 6);
    const unsigned char more[10] = {11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
    EXPECT_EQ(fifo.writeSamples(more, 10, false), 4u);
    EXPECT_EQ(fifo.getSize(), 6u);
    EXPECT_EQ(fifo.writeSamples(more, 10, true), 4u);
    EXPECT_EQ(fifo.getWritePos(), 0u);
    EXPECT_TRUE(fifo.isFull());
    EXPECT_EQ(fifo.writeSamples(more, 1, true), 0u);
    EXPECT_EQ(take(20, true), (Bytes{1, 2, 3, 4, 5, 6, 11, 12, 13, 14}));
    EXPECT_EQ(fifo.getReadPos(), 0u);
    EXPECT_EQ(fifo.getRemainingSize(), 10u);
}

TEST_F(Fifo, KeepsTheOrderAcrossTheEndOfTheArray) {
    for (unsigned long start = 0; start < 10; ++start) {
        fillAt(start, 7);
        EXPECT_EQ(take(3, false), (Bytes{1, 2, 3})) << start;
        EXPECT_EQ(take(2, false, 3), (Bytes{4, 5})) << start;
        EXPECT_EQ(take(9, false, 1), (Bytes{2, 3, 4, 5, 6, 7})) << start;
        EXPECT_EQ(take(3, true), (Bytes{1, 2, 3})) << start;
        EXPECT_EQ(take(1, false, 4), Bytes()) << start;
        EXPECT_EQ(take(1, false, 50), Bytes()) << start;
        EXPECT_EQ(take(10, true), (Bytes{4, 5, 6, 7})) << start;
        EXPECT_EQ(fifo.getReadPos(), (start + 7) % 10);
    }
}

TEST_F(Fifo, CapacityZeroIsEmptyAndNotFull) {
    unsigned char byte = 0;
    EXPECT_FALSE(fifo.isFull());
    EXPECT_EQ(fifo.writeSamples(&byte, 1, true), 0u);
    EXPECT_EQ(fifo.readSamplesAt(&byte, 1, true, 1), 0u);
}
