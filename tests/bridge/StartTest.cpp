#include "modules/daq/bridge/DaqChannelBuffer.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

struct StartTest : testing::Test, protected Bench {
    StartTest() : device(std::make_shared<TestDevice>()) {
        build({device});
        controller->operationMode = 1;
    }

    std::shared_ptr<TestDevice> device;
};

TEST_F(StartTest, UsedSynchronousChannelsWriteIntoTheHost) {
    const auto& channels = device->ai->channels;
    const auto ownRaw = channels[0]->buffer;
    const auto ownFiltered = channels[1]->buffer;
    reserve({"Raw 1", "Async in"});
    structure->beforeStart();
    EXPECT_TRUE(controller->acqInitialized());
    EXPECT_TRUE(channels[0]->used);
    EXPECT_TRUE(channels[0]->active);
    EXPECT_EQ(channels[0]->buffer->getData(), channel("Raw 1").getBuffer().getData());
    EXPECT_EQ(channels[0]->buffer->getCapacity(), 2000u);
    EXPECT_FALSE(channels[1]->used);
    EXPECT_EQ(channels[1]->buffer, ownFiltered);
    // An asynchronous channel keeps its own ring in any case.
    EXPECT_TRUE(device->async->input->used);
    EXPECT_EQ(device->async->input->buffer->getCapacity(), 16u);

    // The other way round in the next run, without anything in the way of start or stop.
    controller->startAcquisition();
    controller->stopAcquisition();
    reserve({"Filtered 1"});
    structure->beforeStart();
    EXPECT_EQ(channels[0]->buffer, ownRaw);
    EXPECT_EQ(ownRaw->getCapacity(), 0u);
    EXPECT_EQ(channels[1]->buffer->getData(), channel("Filtered 1").getBuffer().getData());
    EXPECT_EQ(channels[1]->buffer->getCapacity() % 32, 0u);

    // Each start looks at the host's ring anew.
    channel("Filtered 1").setSampleRate(Ratio{500, 1});
    reserve({"Filtered 1"});
    structure->beforeStart();
    EXPECT_EQ(channels[1]->buffer->getCapacity(), 992u);
}

TEST_F(StartTest, RingThatWasNotReservedAgainIsRefused) {
    reserve({"Raw 1"});
    structure->beforeStart();
    device->ai->channels[0]->buffer->incrementSamplePosition(30);
    const std::string text = Harvane::RT::Core::Testing::failure([&] { structure->beforeStart(); });
    EXPECT_TRUE(text.starts_with("80000029 ") && text.find("Raw 1") != std::string::npos) << text;
    EXPECT_FALSE(controller->acqRunning());
    reserve({"Raw 1"});
    EXPECT_NO_THROW(structure->beforeStart());
}

struct DaqChannelBufferTest : testing::Test {
    DaqChannelBufferTest() {
        channel.setUsed(true);
        channel.setSampleRate(Ratio{5, 1});  // a ring of 10
        checkErrorInfo(channel->initializeAcquisition());
    }

    ChannelPtr<> channel =
        made<IChannel>(createSyncChannel, StringPtr("0").get(), static_cast<int>(SampleDataType::Int16), 0.0);
};

// What is added goes to the host's own memory, and the host's position wraps it, whoever moves it.
TEST_F(DaqChannelBufferTest, WritesIntoTheRingOfTheHost) {
    DaqChannelBuffer buffer(channel);
    EXPECT_TRUE(buffer.isEmpty());
    for (short value = 1; value <= 12; ++value) {
        buffer.addSample(&value);
    }
    EXPECT_FALSE(buffer.isEmpty());
    EXPECT_EQ(buffer.getSize(), 10u);
    const short expected[] = {11, 12, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(std::memcmp(channel.getBuffer().getData(), expected, sizeof expected), 0);
    EXPECT_EQ(channel.getSamplesAcquired(), 12);
    EXPECT_EQ(*static_cast<short*>(buffer.getSample(1)), 12);
    EXPECT_EQ(buffer.getSampleInDouble(9), 10.0);
    EXPECT_THROW(buffer.getSample(10), OutOfRangeException);
    checkErrorInfo(channel->incrementSamplePosition(7));
    EXPECT_EQ(buffer.getPosition(), 9u);
    buffer.incrementSamplePosition(5);
    EXPECT_EQ(channel.getBuffer().getPosition(), 4u);
}

TEST_F(DaqChannelBufferTest, LeavesTheMemoryToTheHost) {
    DaqChannelBuffer buffer(channel);
    buffer.setCapacity(0);
    EXPECT_EQ(buffer.getCapacity(), 10u);
    // The buffer outlives every other holder of the channel, so position and memory must too.
    channel.release();
    const short value = 5;
    buffer.addSample(&value);
    EXPECT_EQ(buffer.getSampleInDouble(0), 5.0);
    EXPECT_THROW(DaqChannelBuffer{channel}, InvalidParameterException);
}

}  // namespace
