#include "tests/host/corestructure/Helpers.h"

using namespace Harvane::RT::Core;

TEST(ChannelCreation, RefusesWhatIsNoChannel) {
    IChannel* channel = nullptr;
    for (const int type : {5, -1, 8}) {
        EXPECT_EQ(codeOf(createAsyncChannel(&channel, nullptr, type, Nan)), Errors::InvalidParameter) << type;
    }
    for (const auto& [type, dimension] : {std::pair{9, 4u}, {8, 0u}}) {
        EXPECT_EQ(codeOf(createSyncVectorChannel(&channel, nullptr, type, dimension, Nan)), Errors::InvalidParameter);
    }
}

TEST(ChannelCreation, StartValues) {
    const auto channel = asyncVectorChannel(16, "12");
    EXPECT_EQ(channel.getClassName(), "Channel");
    EXPECT_EQ(channel.getPropertyValue<std::string>("ChannelId"), "12");
    EXPECT_EQ(channel.getPropertyValue<int>("SampleDataType"), 8);
    EXPECT_EQ(channel.getPropertyValue<int>("Dimension"), 16);
    EXPECT_EQ(channel.getPropertyValue<int>("Type"), 1);
    EXPECT_EQ(channel.getScale(), 1.0) << "the class's 0 would blank the values";
    EXPECT_FALSE(channel.getUsed());
    EXPECT_TRUE(channel.getPropertyValue<bool>("ShouldReserveMemory"));
    EXPECT_THROW(channel.getSampleRate(), NotAssignedException);
}

TEST(ChannelProperties, ScalingFollowsEveryWayOfWriting) {
    const auto channel = syncChannel(SampleDataType::Int16);
    auto scaled = [&](double raw) {
        double value = 0.0;
        checkErrorInfo(channel->scaleValue(raw, &value));
        return value;
    };
    channel.setScale(2.0);
    EXPECT_EQ(scaled(10.0), 20.0);
    channel.setPropertyValue("Offset", 1);
    EXPECT_EQ(scaled(10.0), 21.0);
    channel.clearProperty("Offset");
    EXPECT_EQ(scaled(10.0), 20.0);

    // A listener that fails is told to the writer; the value is stored all the same.
    listen(channel, makeHandler([](const BasePtr&, const auto&) { throw InvalidStateException("no"); }));
    EXPECT_THROW(channel.setScale(4.0), InvalidStateException);
    EXPECT_EQ(channel.getScale(), 4.0);
    EXPECT_EQ(scaled(10.0), 40.0);
}

TEST(ChannelProperties, OnlyClassesOfChannels) {
    const auto channel = syncChannel(SampleDataType::Int16);
    TemporaryClass amplifier("TestAmplifier", "channel");
    amplifier.objectClass.registerProperty(property("Gain").defaultValue(7));
    EXPECT_EQ(failure([&] { channel.setClassName("RangeItem"); }),
              "80000011 Property class \"RangeItem\" is no \"Channel\"");
    channel.setUsed(true);
    channel.setClassName("testamplifier");
    EXPECT_EQ(channel.getPropertyValue<int>("Gain"), 7);
    // The class goes while the channel lives: values and name stay.
    amplifier.remove();
    channel.setClassName("testamplifier");
    EXPECT_FALSE(channel.hasProperty("Gain"));
    EXPECT_TRUE(channel.getPropertyValue<bool>("Used"));
}

TEST(ChannelProperties, SetupLeavesOutWhatIsNoSetting) {
    const auto channel = syncChannel(SampleDataType::Int16, "3");
    channel.setUnit("V");
    channel.setSampleRate({1000, 1});
    channel.setPropertyValue("UpdateAmplifier", makeProc([](const BasePtr&) { return Errors::Success; }));
    channel.setPropertyValue("CheckRate", makeFunc([](const BasePtr&, BasePtr&) { return Errors::Success; }));

    const std::string json = serialized(asBase(channel));
    for (const char* absent :
         {"UpdateAmplifier", "CheckRate", "SampleDataType", "NodeType", "ChannelId", "Dimension"}) {
        EXPECT_EQ(json.find(absent), std::string::npos) << absent << " in " << json;
    }

    // And it comes back: into a channel of another kind, which stays what it is.
    const auto other = asyncChannel(SampleDataType::Float64, "4");
    update(other, json);
    EXPECT_EQ(other.getUnit(), "V");
    EXPECT_EQ(other.getSampleRate(), (Ratio{1000, 1}));
    EXPECT_EQ(other.getPropertyValue<int>("SampleDataType"), 0);
}
