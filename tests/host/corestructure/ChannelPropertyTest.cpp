#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/host/corestructure/Helpers.h"

using namespace Harvane::RT::Core;

TEST(ChannelCreation, RefusesWhatIsNoChannel) {
    struct Case {
        int type;
        bool vector;
        size_t dimension;
    };
    for (const auto& c :
         {Case{5, false, 1}, Case{-1, false, 1}, Case{8, false, 1}, Case{9, true, 4}, Case{8, true, 0}}) {
        IChannel* channel = nullptr;
        const ErrCode code = c.vector ? createSyncVectorChannel(&channel, nullptr, c.type, c.dimension, Nan)
                                      : createAsyncChannel(&channel, nullptr, c.type, Nan);
        EXPECT_EQ(codeOf(code), Errors::InvalidParameter) << c.type;
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

TEST(ChannelProperties, TypedAccessorsAreTheProperties) {
    const auto channel = syncChannel(SampleDataType::Int16);
    std::vector<std::string> fired;
    const auto handler = makeHandler([&](const BasePtr&, const ObjectPtr<IEventArgs>& arguments) {
        const PropertyValueChangedEventArgsPtr changed(arguments.asPtr<IPropertyValueChangedEventArgs>());
        fired.push_back(changed.getPropertyName().toStdString());
    });
    checkErrorInfo(channel.getOnPropertyValueChanged()->addHandler(handler.get()));

    channel.setSampleRate({5000, 3});
    channel.setUsed(true);
    channel.setUnit("mV/V");
    channel.setMinValue(-10.0);
    channel.setMaxValue(10.0);
    channel.setScale(2.0);
    channel.setOffset(3.0);
    channel.setName("AI 1");
    EXPECT_EQ(fired, (std::vector<std::string>{"SampleRate", "Used", "Unit", "MinValue", "MaxValue", "Scale", "Offset",
                                               "Name"}));

    EXPECT_EQ(channel.getPropertyValue<Ratio>("SampleRate"), (Ratio{5000, 3}));
    channel.setPropertyValue("MaxValue", 5);
    EXPECT_EQ(channel.getMaxValue(), 5.0) << "converted to the property's type";
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
    const auto handler =
        makeHandler([](const BasePtr&, const ObjectPtr<IEventArgs>&) { throw InvalidStateException("no"); });
    checkErrorInfo(channel.getOnPropertyValueChanged()->addHandler(handler.get()));
    EXPECT_THROW(channel.setScale(4.0), InvalidStateException);
    EXPECT_EQ(channel.getScale(), 4.0);
    EXPECT_EQ(scaled(10.0), 40.0);
}

TEST(ChannelProperties, OnlyClassesOfChannels) {
    const auto channel = syncChannel(SampleDataType::Int16);
    const auto manager = PropertyObjectManagerPtr::create();
    const auto amplifier = PropertyObjectClassPtr::create();
    amplifier.setName("TestAmplifier");
    amplifier.setParent("channel");
    amplifier.registerProperty(PropertyInfoPtr::create("Gain", CoreType::Int).defaultValue(7));
    manager.addClass(amplifier);
    EXPECT_EQ(failure([&] { channel.setClassName("RangeItem"); }),
              "80000011 Property class \"RangeItem\" is no \"Channel\"");
    channel.setUsed(true);
    channel.setClassName("testamplifier");
    EXPECT_EQ(channel.getPropertyValue<int>("Gain"), 7);
    // The class goes while the channel lives: values and name stay.
    manager.removeClass("TestAmplifier");
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

    const auto serializer = made<ISerializer>(createJsonSerializer);
    checkErrorInfo(channel->serialize(serializer.get()));
    const StringPtr text = made<IString>([&](IString** r) { return serializer->getOutput(r); });
    const std::string json = text.toStdString();
    for (const char* present : {"\"Unit\"", "\"1000/1\"", "\"Scale\""})
        EXPECT_NE(json.find(present), std::string::npos) << present << " in " << json;
    for (const char* absent : {"UpdateAmplifier", "CheckRate", "SampleDataType", "NodeType", "ChannelId", "Dimension"})
        EXPECT_EQ(json.find(absent), std::string::npos) << absent << " in " << json;

    // And it comes back: into a channel of another kind, which stays what it is.
    const auto other = asyncChannel(SampleDataType::Float64, "4");
    const auto deserializer = made<IDeserializer>(createJsonDeserializer);
    const auto parsed =
        made<ISerializedObject>([&](ISerializedObject** r) { return deserializer->parse(text.get(), r); });
    checkErrorInfo(other->update(1, parsed.get()));
    EXPECT_EQ(other.getUnit(), "V");
    EXPECT_EQ(other.getSampleRate(), (Ratio{1000, 1}));
    EXPECT_EQ(other.getPropertyValue<int>("SampleDataType"), 0);
}
