#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <stdexcept>

#include "modules/daq/bridge/DaqChannelBuffer.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT;
using namespace Harvane::RT::Core;
using Modules::Daq::DaqChannelBuffer;

namespace {

class DaqChannelBufferTest : public testing::Test {
protected:
    DaqChannelBufferTest() {
        IChannel* made = nullptr;
        checkErrorInfo(createSyncChannel(&made, StringPtr("0").get(), static_cast<int>(SampleDataType::Int16),
                                         std::numeric_limits<double>::quiet_NaN()));
        channel = ObjectPtr<IChannel>::take(made);
        channel.setUsed(true);
        channel.setSampleRate(Ratio{5, 1});  // a ring of 10
        checkErrorInfo(channel->initializeAcquisition());
    }

    ChannelPtr<> channel;
};

// What is added goes to the host's own memory, and the host's position wraps it.
TEST_F(DaqChannelBufferTest, WritesIntoTheRingOfTheHost) {
    DaqChannelBuffer buffer(channel);
    ASSERT_EQ(buffer.getCapacity(), 10u);
    EXPECT_EQ(buffer.getSampleSize(), 2u);
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(buffer.getData(), channel.getBuffer().getData());

    for (short value = 1; value <= 12; ++value) {
        buffer.addSample(&value);
    }
    EXPECT_EQ(buffer.getPosition(), 2u);
    EXPECT_EQ(buffer.getSize(), 10u);
    EXPECT_FALSE(buffer.isEmpty());
    const short expected[] = {11, 12, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(std::memcmp(channel.getBuffer().getData(), expected, sizeof expected), 0);
    EXPECT_EQ(channel.getSamplesAcquired(), 12);
    EXPECT_EQ(*static_cast<short*>(buffer.getSample(1)), 12);
    EXPECT_EQ(buffer.getSampleInDouble(9), 10.0);
    EXPECT_THROW(buffer.getSample(10), OutOfRangeException);

    // Who moves it doesn't matter.
    checkErrorInfo(channel->incrementSamplePosition(7));
    EXPECT_EQ(buffer.getPosition(), 9u);
    buffer.incrementSamplePosition(5);
    EXPECT_EQ(channel.getBuffer().getPosition(), 4u);
}

TEST_F(DaqChannelBufferTest, LeavesTheMemoryToTheHost) {
    DaqChannelBuffer buffer(channel);
    buffer.setCapacity(0);
    EXPECT_EQ(buffer.getCapacity(), 10u);
    for (const auto& call : std::initializer_list<std::function<void()>>{
             [&] { buffer.reset(); }, [&] { buffer.setSize(3); }, [&] { buffer.setPosition(0); }}) {
        try {
            call();
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Not implemented");
        }
    }
    // The buffer outlives every other holder of the channel, so position and memory must too.
    channel.release();
    const short value = 5;
    buffer.addSample(&value);
    EXPECT_EQ(buffer.getSampleInDouble(0), 5.0);
    EXPECT_THROW(DaqChannelBuffer{channel}, InvalidParameterException);
}

}  // namespace
