#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <stdexcept>

#include <zorn/types/object_impl.h>

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
}

TEST_F(DaqChannelBufferTest, SeesThePositionOfTheHostAtOnce) {
    DaqChannelBuffer buffer(channel);
    checkErrorInfo(channel->incrementSamplePosition(7));
    EXPECT_EQ(buffer.getPosition(), 7u);
    buffer.incrementSamplePosition(5);
    EXPECT_EQ(channel.getBuffer().getPosition(), 2u);
}

TEST_F(DaqChannelBufferTest, LeavesTheMemoryToTheHost) {
    DaqChannelBuffer buffer(channel);
    const auto* data = buffer.getData();
    buffer.setCapacity(0);
    EXPECT_EQ(buffer.getCapacity(), 10u);
    EXPECT_EQ(buffer.getData(), data);
    const auto expectRefusal = [](auto&& call) {
        try {
            call();
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Not implemented");
        }
    };
    expectRefusal([&] { buffer.reset(); });
    expectRefusal([&] { buffer.setSize(3); });
    expectRefusal([&] { buffer.setPosition(0); });
}

// The buffer outlives every other holder of the channel, so position and memory must too.
TEST_F(DaqChannelBufferTest, HoldsTheChannel) {
    DaqChannelBuffer buffer(channel);
    channel.release();
    const short value = 5;
    buffer.addSample(&value);
    EXPECT_EQ(buffer.getSampleInDouble(0), 5.0);
}

TEST_F(DaqChannelBufferTest, HostFailuresAreExceptions) {
    DaqChannelBuffer buffer(channel);
    EXPECT_THROW(buffer.getSample(10), OutOfRangeException);
    EXPECT_THROW(DaqChannelBuffer(ChannelPtr<>()), InvalidParameterException);
}

TEST_F(DaqChannelBufferTest, EntryPoints) {
    const auto before = zornSharedLibObjectCount.load();
    void* made = nullptr;
    ASSERT_EQ(createDaqChannelBuffer(&made, channel.get()), Errors::Success);
    EXPECT_EQ(zornSharedLibObjectCount.load(), before + 1);
    auto* buffer = static_cast<Modules::Daq::IChannelBuffer*>(made);
    EXPECT_EQ(buffer->getCapacity(), 10u);
    EXPECT_EQ(removeDaqChannelBuffer(buffer), Errors::Success);
    EXPECT_EQ(zornSharedLibObjectCount.load(), before);

    EXPECT_EQ(createDaqChannelBuffer(nullptr, channel.get()), Errors::ArgumentNull);
    EXPECT_EQ(createDaqChannelBuffer(&made, nullptr), Errors::InvalidParameter);
    EXPECT_FALSE(Modules::Daq::Test::takeText().empty());
    EXPECT_EQ(zornSharedLibObjectCount.load(), before);
    EXPECT_EQ(removeDaqChannelBuffer(nullptr), Errors::Success);
}

}  // namespace
