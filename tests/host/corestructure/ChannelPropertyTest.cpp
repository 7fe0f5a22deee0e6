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
        const StringPtr id("1");
        const ErrCode code = c.vector ? createSyncVectorChannel(&channel, id.get(), c.type, c.dimension, Nan)
                                      : createAsyncChannel(&channel, id.get(), c.type, Nan);
        EXPECT_EQ(codeOf(code), Errors::InvalidParameter) << c.type;
        EXPECT_EQ(channel, nullptr);
    }
    EXPECT_EQ(createSyncChannel(nullptr, StringPtr("1").get(), 0, Nan), Errors::ArgumentNull);
}

TEST(ChannelCreation, StartValues) {
    const auto channel = asyncVectorChannel(16, "12");
    EXPECT_EQ(channel.getClassName(), "Channel");
    EXPECT_EQ(channel.getPropertyValue<std::string>("ChannelId"), "12");
    EXPECT_EQ(channel.getPropertyValue<int>("SampleDataType"), 8);
    EXPECT_EQ(channel.getPropertyValue<int>("Dimension"), 16);
    EXPECT_EQ(channel.getPropertyValue<int>("Type"), 1);
    EXPECT_EQ(channel.getScale(), 1.0) << "the class's 0 would blank the values";
    EXPECT_EQ(channel.getOffset(), 0.0);
    EXPECT_FALSE(channel.getUsed());
    EXPECT_EQ(channel.getUnit(), "");
    EXPECT_TRUE(channel.getPropertyValue<bool>("ShouldReserveMemory"));
    EXPECT_THROW(channel.getSampleRate(), NotAssignedException);
}

TEST(ChannelProperties, TypedAccessorsAreTheProperties) {
    const auto channel = syncChannel(SampleDataType::Int16);
    std::vector<std::string> fired;
    const auto handler = makeHandler([&](const BasePtr& sender, const ObjectPtr<IEventArgs>& arguments) {
        EXPECT_TRUE(sender.equals(channel));
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
    EXPECT_TRUE(channel.getPropertyValue<bool>("Used"));
    EXPECT_EQ(channel.getPropertyValue<std::string>("Unit"), "mV/V");
    channel.setPropertyValue("MaxValue", 5);
    EXPECT_EQ(channel.getMaxValue(), 5.0) << "converted to the property's type";
    channel.setPropertyValue("SampleRate", 250);
    EXPECT_EQ(channel.getSampleRate(), (Ratio{250, 1}));
}

TEST(ChannelProperties, RateHandlerThatWritesBackWins) {
    const auto channel = syncChannel(SampleDataType::Int32);
    int calls = 0;
    const auto handler = makeHandler([&](const BasePtr& sender, const ObjectPtr<IEventArgs>&) {
        if (++calls == 1)
            ChannelPtr<>(sender.asPtr<IChannel>()).setSampleRate({100, 1});
    });
    checkErrorInfo(channel.getOnPropertyValueChanged()->addHandler(handler.get()));
    channel.setSampleRate({99, 1});
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(channel.getSampleRate(), (Ratio{100, 1}));
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
    amplifier.setName("testamplifier");
    amplifier.setParent("Channel");
    amplifier.registerProperty(PropertyInfoPtr::create("Gain", CoreType::Int).defaultValue(7));
    manager.addClass(amplifier);
    EXPECT_THROW(channel.setClassName("RangeItem"), InvalidTypeException);
    channel.setUsed(true);
    channel.setClassName("testamplifier");
    EXPECT_EQ(channel.getPropertyValue<int>("Gain"), 7);
    EXPECT_TRUE(channel.getUsed()) << "values stay";
    EXPECT_EQ(channel.getScale(), 1.0);
    manager.removeClass("testamplifier");
    EXPECT_TRUE(channel.getPropertyValue<bool>("Used"));
}

TEST(ChannelProperties, SetupLeavesOutWhatIsNoSetting) {
    const auto channel = syncChannel(SampleDataType::Int16, "3");
    channel.setUnit("V");
    channel.setSampleRate({1000, 1});
    channel.setPropertyValue("UpdateAmplifier", makeProc([](const BasePtr&) { return Errors::Success; }));
    channel.setPropertyValue("CheckRate", makeFunc([](const BasePtr&, BasePtr&) { return Errors::Success; }));

    const auto serializer = made<ISerializer>([](ISerializer** r) { return createJsonSerializer(r); });
    checkErrorInfo(channel->serialize(serializer.get()));
    const StringPtr text = made<IString>([&](IString** r) { return serializer->getOutput(r); });
    const std::string json = text.toStdString();
    for (const char* present : {"\"Unit\"", "\"1000/1\"", "\"Scale\""})
        EXPECT_NE(json.find(present), std::string::npos) << present << " in " << json;
    for (const char* absent : {"UpdateAmplifier", "CheckRate", "SampleDataType", "NodeType", "ChannelId", "Dimension"})
        EXPECT_EQ(json.find(absent), std::string::npos) << absent << " in " << json;

    // And it comes back: into a channel of another kind, which stays what it is.
    const auto other = asyncChannel(SampleDataType::Float64, "4");
    const auto deserializer = made<IDeserializer>([](IDeserializer** r) { return createJsonDeserializer(r); });
    const auto parsed =
        made<ISerializedObject>([&](ISerializedObject** r) { return deserializer->parse(text.get(), r); });
    checkErrorInfo(other->update(1, parsed.get()));
    EXPECT_EQ(other.getUnit(), "V");
    EXPECT_EQ(other.getSampleRate(), (Ratio{1000, 1}));
    EXPECT_EQ(other.getSampleDataType(), SampleDataType::Float64);
    EXPECT_EQ(other.getPropertyValue<int>("SampleDataType"), 0);
}
