#include <gtest/gtest.h>

#include <stdexcept>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/StatusChannel.h"
#include "modules/daq/objectmodel/StatusDevice.h"

using namespace Harvane::RT::Modules::Daq;

TEST(StatusDevice, ChannelsAreWhatTheirTypesSay) {
    struct Row {
        int type;
        const char* name;
        unsigned long sampleSize;
        bool isFloat;
        double minimum;
        double maximum;
    };
    const Row rows[] = {
        {0, "Device relative time", 8, true, 0, 2592000},
        {1, "Time lock", 1, false, 0, 1},
        {2, "Power lost", 1, false, 0, 1},
        {3, "CPU temperature", 4, true, -100, 100},
        {4, "Motherboard temperature", 4, true, -100, 100},
        {5, "Phase error", 4, true, 0, 75000000},
        {6, "VCXO value", 2, false, 0, 1024},
        {7, "Cable detect 1", 1, false, 0, 1},
        {8, "Cable detect 2", 1, false, 0, 1},
        {9, "Cable temperature", 4, true, -200, 200},
    };
    StatusDevice device;
    EXPECT_EQ(device.getDisplayName(), "Statuses");
    for (const Row& row : rows) {
        device.addStatusChannel(static_cast<StatusChannelType>(row.type));
    }
    device.addStatusChannel(StatusChannelType::CpuTemperature);
    device.addStatusChannel(static_cast<StatusChannelType>(10));
    // A second discovery on the same device makes them anew.
    device.initializeHardware();
    device.initializeHardware();
    ASSERT_EQ(device.channels.size(), 12u);
    EXPECT_EQ(device.channels.maxChannels, 12);
    for (const Row& row : rows) {
        const auto channel = device.getStatusChannel(row.type);
        ASSERT_NE(channel, nullptr);
        EXPECT_EQ(channel->name, row.name);
        EXPECT_EQ(channel->number, row.type);
        EXPECT_EQ(static_cast<int>(channel->statusChannelType), row.type);
        EXPECT_EQ(channel->buffer->getSampleSize(), row.sampleSize) << row.name;
        EXPECT_EQ(channel->isFloat, row.isFloat) << row.name;
        EXPECT_EQ(channel->minValue, row.minimum) << row.name;
        EXPECT_EQ(channel->maxValue, row.maximum) << row.name;
        EXPECT_TRUE(channel->used && channel->sampleType == SampleType::Async && channel->timeBuffer) << row.name;
        channel->active = true;
        EXPECT_EQ(channel->calculateBufferCapacity(), 200u);
        EXPECT_EQ(device.getStatusChannel(static_cast<StatusChannelType>(row.type)), channel)
            << "the first of its type";
    }
    EXPECT_EQ(device.getStatusChannel(11)->buffer, nullptr);
    EXPECT_EQ(device.getStatusChannel(11)->name, "");
    EXPECT_EQ(device.getStatusChannel(static_cast<StatusChannelType>(77)), nullptr);
    EXPECT_THROW(device.getStatusChannel(12), std::out_of_range);
    device.channels.push_back(std::make_shared<Channel>(12));
    EXPECT_EQ(device.getStatusChannel(12), nullptr);
}
