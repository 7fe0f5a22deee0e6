#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "modules/daq/DaqController.h"
#include "modules/daq/DaqModuleImpl.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/bridge/RtcClasses.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CntChannel.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

// Analog outputs, counters and CAN ports of a device that has all three.
class Outputs : public SubDevice {
public:
    Outputs() {
        output = std::make_shared<AOChannel>(0);
        output->name = "Out 1";
        add(output);
    }
    std::string getDisplayName() const override { return "Analog outputs"; }
    template <class T>
    void add(const std::shared_ptr<T>& channel) {
        channel->initialize();
        channels.push_back(channel);
    }
    std::shared_ptr<AOChannel> output;
};

class CanPorts : public SubDevice {
public:
    CanPorts() {
        for (int number = 0; number < 4; ++number) {
            auto channel = std::make_shared<CANChannel>(number);
            channel->name = "CAN " + std::to_string(number);
            channel->isControl = number % 2 != 0;
            channel->initialize();
            ports.push_back(channel);
            channels.push_back(channel);
        }
        ports[0]->baudRate = 250000;
        ports[2]->writeEnable = 1;
    }
    std::string getDisplayName() const override { return "CAN"; }
    std::vector<std::shared_ptr<CANChannel>> ports;
};

// A folder for each counter, as a counter's settings belong to all its channels.
class Counters : public SubDevice {
public:
    Counters() {
        for (int counter = 0; counter < 2; ++counter) {
            for (const char* name : {"Count", "Frequency"}) {
                auto channel = std::make_shared<CntChannel>(static_cast<int>(channels.size()));
                channel->name = name;
                channel->initialize();
                all.push_back(channel);
                channels.push_back(channel);
            }
        }
        all[0]->cntBaseClock = 80000000;
        all[0]->source = 3;
        all[0]->auxInvert = 1;
    }
    std::string getDisplayName() const override { return "Counters"; }
    void buildChannelView() override {
        channelView = std::make_shared<ChannelFolder>("Counters", false);
        for (size_t counter = 0; counter < 2; ++counter) {
            auto folder = std::make_shared<ChannelFolder>("Counter " + std::to_string(counter + 1), false);
            folder->addChannel(all[2 * counter]);
            folder->addChannel(all[2 * counter + 1]);
            channelView->push_back(folder);
        }
    }
    std::vector<std::shared_ptr<CntChannel>> all;
};

class ManyKinds : public TestDevice {
public:
    std::shared_ptr<AIDevice> createAIDevice() override { return nullptr; }
    std::shared_ptr<SubDevice> createAODevice() override { return outputs = std::make_shared<Outputs>(); }
    std::shared_ptr<SubDevice> createCntDevice() override { return counters = std::make_shared<Counters>(); }
    void initialize() override {
        TestDevice::initialize();
        can = std::make_shared<CanPorts>();
        can->setParent(shared_from_this());
        push_back(can);
    }
    std::shared_ptr<Outputs> outputs;
    std::shared_ptr<Counters> counters;
    std::shared_ptr<CanPorts> can;
};

bool hasClass(const char* name) {
    return static_cast<bool>(PropertyObjectManagerPtr::create().findClass(name));
}

ConfigurationAction actionOf(const PropertyInfoPtr& info, ConfigurationMode mode, PropertyState state) {
    ConfigurationAction action{};
    checkErrorInfo(info->getConfigurationAction(mode, state, &action));
    return action;
}

std::vector<std::string> textsOf(const PropertyInfoPtr& info) {
    std::vector<std::string> texts;
    const ListPtr values = info.getValuesAsList();
    for (size_t i = 0; i < values.getCount(); ++i) {
        texts.push_back(fromValue<std::string>(values.getItemAt(i)));
    }
    return texts;
}

class ChannelKindsTest : public testing::Test, protected Bench {
protected:
    ChannelKindsTest() : device(std::make_shared<ManyKinds>()) { build({device}); }

    const RtcClasses classes;
    std::shared_ptr<ManyKinds> device;
};

using Texts = std::vector<std::string>;

TEST_F(ChannelKindsTest, AnalogOutputsHaveARoute) {
    const auto output = channel("Out 1");
    ASSERT_TRUE(output);
    EXPECT_TRUE(output.getPropertyValue<bool>("IsControl"));
    const GenericPropertyObjectPtr route(output.getPropertyValue("RTC").asPtr<IPropertyObject>());
    EXPECT_EQ(route.getClassName(), StringPtr("RTC_AO"));
    EXPECT_FALSE(route.getPropertyValue<bool>("Enabled"));
    EXPECT_EQ(route.getPropertyValue<int>("ScalingType"), 0);
    EXPECT_EQ(textsOf(route.getPropertyInfo("ScalingType")), (Texts{"Direct", "From range"}));
    output.setPropertyValue("RTC.Enabled", true);
    output.setPropertyValue("RTC.ChIndex", "Data/Module/0");
    EXPECT_TRUE(route.getPropertyValue<bool>("Enabled"));
    EXPECT_EQ(route.getPropertyValue<std::string>("ChIndex"), "Data/Module/0");
    // A setup that has the route brings it, one without leaves it.
    EXPECT_EQ(actionOf(output.getPropertyInfo("RTC"), 1, 2), ConfigurationAction::TakeOver);
    EXPECT_EQ(actionOf(output.getPropertyInfo("RTC"), 1, 4), ConfigurationAction::TakeOver);
    EXPECT_EQ(actionOf(output.getPropertyInfo("RTC"), 1, 1), ConfigurationAction::Leave);
    EXPECT_EQ(actionOf(route.getPropertyInfo("Enabled"), 1, 1), ConfigurationAction::TakeOver);
}

TEST_F(ChannelKindsTest, CanInputsShowTheirPort) {
    const auto first = channel("CAN 0");
    EXPECT_EQ(first.getPropertyValue<int>("BaudRate"), 250000);
    const Texts baudRates = {"1000000", "500000", "400000", "250000", "200000", "125000",
                             "100000",  "62500",  "50000",  "33333",  "31250"};
    EXPECT_EQ(textsOf(first.getPropertyInfo("BaudRate")), baudRates);
    EXPECT_EQ(fromValue<int>(first.getPropertyInfo("BaudRate").getDefaultValue()), 0);
    EXPECT_EQ(first.getPropertyValue<std::string>("OperationMode"), "ReadOnly");
    EXPECT_EQ(textsOf(first.getPropertyInfo("OperationMode")), (Texts{"ReadOnly", "ReadWriteAcq"}));
    EXPECT_EQ(channel("CAN 2").getPropertyValue<std::string>("OperationMode"), "ReadWriteAcq");
    EXPECT_EQ(channel("CAN 2").getPropertyValue<int>("BaudRate"), 500000);
    const GenericPropertyObjectPtr route(first.getPropertyValue("RTC").asPtr<IPropertyObject>());
    EXPECT_EQ(route.getClassName(), StringPtr("RTC_CAN_V1"));
    EXPECT_EQ(route.getPropertyValue<int>("OutputRate"), 10);
    EXPECT_FALSE(route.getPropertyValue<bool>("Enabled"));
    EXPECT_EQ(ListPtr(route.getPropertyValue("Messages").asPtr<IList>()).getCount(), 0u);
    for (const char* name : {"BaudRate", "OperationMode", "RTC"}) {
        EXPECT_FALSE(channel("CAN 1").hasProperty(name)) << name;
    }
}

TEST_F(ChannelKindsTest, StartReadsCanSettingsBack) {
    channel("CAN 0").setPropertyValue("BaudRate", 1000000);
    channel("CAN 0").setPropertyValue("OperationMode", "ReadWriteAcq");
    channel("CAN 2").setPropertyValue("OperationMode", "ReadOnly");
    device->can->ports[1]->baudRate = 7;
    reserve({});
    structure->beforeStart();
    EXPECT_EQ(device->can->ports[0]->baudRate, 1000000);
    EXPECT_EQ(device->can->ports[0]->writeEnable, 1);
    EXPECT_EQ(device->can->ports[2]->baudRate, 500000);
    EXPECT_EQ(device->can->ports[2]->writeEnable, 0);
    EXPECT_EQ(device->can->ports[1]->baudRate, 7);  // an output has no settings of its own
}

TEST_F(ChannelKindsTest, CounterSettingsStandOnTheFolder) {
    const auto counter = folder("Counter 1");
    struct Choice {
        const char* name;
        Texts texts;
    };
    for (const Choice& each :
         {Choice{"BaseMode", {"AngleSensor", "EvCounting", "Timing"}},
          Choice{"CountingMode", {"Simple", "Gated", "UpDown", "EncoderCount"}},
          Choice{"TimingMode", {"Period", "PulseWidth", "DutyCycle", "EdgeSep", "Frequency"}},
          Choice{"FilterDelay", {"Off", "_500ns", "_1us", "_2us", "_4us", "_5us", "_7_5us"}},
          Choice{"EncoderMode", {"X1", "X2", "X4"}}}) {
        EXPECT_EQ(textsOf(counter.getPropertyInfo(each.name)), each.texts) << each.name;
        EXPECT_EQ(counter.getPropertyValue<int>(each.name), 0) << each.name;
        EXPECT_EQ(counter.getPropertyEnum(each.name).asPtr<IString>().get() != nullptr, true);
        EXPECT_FALSE(counter.getPropertyInfo(each.name).isHidden()) << each.name;
    }
    const std::vector<std::pair<const char*, int>> hidden = {
        {"CntBaseClock", 80000000}, {"Source", 0},      {"Gate", 1},
        {"SourceInvert", 0},        {"GateInvert", 0},  {"AuxInvert", 0},
        {"ZEnabled", 0},            {"ResetOnStartMeasure", 1}, {"AdvancedCountingMode", 0}};
    for (const auto& [name, value] : hidden) {
        EXPECT_TRUE(counter.getPropertyInfo(name).isHidden()) << name;
        EXPECT_EQ(counter.getPropertyValue<int>(name), value) << name;
    }
    // Where the channel starts, though the property starts elsewhere.
    EXPECT_EQ(fromValue<int>(counter.getPropertyInfo("Source").getReadOnlyValue()), 3);
    EXPECT_EQ(fromValue<int>(counter.getPropertyInfo("AuxInvert").getReadOnlyValue()), 1);
    EXPECT_FALSE(fromValue<bool>(counter.getPropertyInfo("Source").getReadOnly()));
    for (const char* name : {"ZEnabled", "ResetOnStartMeasure", "AdvancedCountingMode"}) {
        EXPECT_TRUE(fromValue<bool>(counter.getPropertyInfo(name).getVisible())) << name;
    }
    counter.setPropertyValue("CntBaseClock", 5);
    EXPECT_EQ(counter.getPropertyValue<int>("CntBaseClock"), 80000000);

    // In the order of a table of settings.
    Texts order;
    for (const auto& info : counter.enumProperties(PropertyOrder::Index)) {
        order.push_back(info.getName().toStdString());
    }
    const Texts expected = {"CntBaseClock", "BaseMode", "CountingMode", "TimingMode",   "FilterDelay",
                            "EncoderMode",  "Source",   "Gate",         "SourceInvert", "GateInvert",
                            "AuxInvert",    "ZEnabled", "ResetOnStartMeasure", "AdvancedCountingMode"};
    const auto found = std::search(order.begin(), order.end(), expected.begin(), expected.end());
    EXPECT_NE(found, order.end());
    EXPECT_EQ(std::count(order.begin(), order.end(), "BaseMode"), 1);
    // The other folders, and the channels themselves, have none of it.
    EXPECT_FALSE(folder("Counters").hasProperty("BaseMode"));
    EXPECT_FALSE(channel("Count").hasProperty("BaseMode"));
}

TEST_F(ChannelKindsTest, StartReadsCounterSettingsBack) {
    const CntChannel untouched(0);
    EXPECT_EQ(untouched.baseMode, 1);
    const auto counter = folder("Counter 1");
    for (const auto& [name, value] : std::vector<std::pair<const char*, int>>{
             {"BaseMode", 2}, {"CountingMode", 3}, {"TimingMode", 4}, {"FilterDelay", 6}, {"EncoderMode", 1},
             {"Source", 11}, {"Gate", 12}, {"SourceInvert", 13}, {"GateInvert", 14}, {"AuxInvert", 15},
             {"ZEnabled", 16}}) {
        counter.setPropertyValue(name, value);
    }
    counter.setPropertyValue("ResetOnStartMeasure", false);
    counter.setPropertyValue("AdvancedCountingMode", true);
    device->counters->all[1]->source = 99;
    reserve({});
    structure->beforeStart();

    const CntChannel& set = *device->counters->all[0];
    const std::vector<int> values = {set.baseMode,     set.countingMode, set.timingMode, set.filterDelay,
                                     set.encoderMode,  set.source,       set.gate,       set.sourceInvert,
                                     set.gateInvert,   set.auxInvert,    set.zEnabled};
    EXPECT_EQ(values, (std::vector<int>{2, 3, 4, 6, 1, 11, 12, 13, 14, 15, 16}));
    EXPECT_FALSE(set.resetOnStartMeasure);
    EXPECT_TRUE(set.advancedCountingMode);
    EXPECT_EQ(device->counters->all[1]->source, 99);  // "Frequency" carries no settings
    // The user's defaults, not the channel's own beginnings.
    const CntChannel& other = *device->counters->all[2];
    EXPECT_EQ(other.baseMode, 0);
    EXPECT_EQ(other.gate, 1);
    EXPECT_TRUE(other.resetOnStartMeasure);
}

// The classes are the process's; they go with the last module that needs them.
TEST(RtcClassesTest, LiveWithTheModules) {
    ASSERT_FALSE(hasClass("RTC_AO"));
    {
        const RtcClasses first;
        {
            const RtcClasses second;
            EXPECT_TRUE(hasClass("RTC_CAN_V1"));
        }
        EXPECT_TRUE(hasClass("RTC_CAN"));
        EXPECT_TRUE(hasClass("RTC_CAN_V1"));
        EXPECT_TRUE(hasClass("RTC_AO"));
        EXPECT_EQ(PropertyObjectManagerPtr::create().findClass("RTC_CAN_V1").getParent(), StringPtr("RTC_CAN"));
    }
    EXPECT_FALSE(hasClass("RTC_CAN"));
    EXPECT_FALSE(hasClass("RTC_CAN_V1"));
    EXPECT_FALSE(hasClass("RTC_AO"));
    takeText();
}

}  // namespace
