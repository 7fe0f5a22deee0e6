#include "modules/daq/bridge/DaqRTOperation.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AOChannel.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CntChannel.h"
#include "tests/bridge/Bench.h"

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::RT::Modules::Daq::Test;

namespace {

// Analog outputs, counters and CAN ports of a device that has all three.
struct Outputs : SubDevice {
    Outputs() {
        auto output = std::make_shared<AOChannel>(0);
        output->name = "Out 1";
        output->initialize();
        channels.push_back(output);
    }
    std::string getDisplayName() const override { return "Analog outputs"; }
};

struct CanPorts : SubDevice {
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
struct Counters : SubDevice {
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

struct ManyKinds : TestDevice {
    std::shared_ptr<AIDevice> createAIDevice() override { return nullptr; }
    std::shared_ptr<SubDevice> createAODevice() override { return std::make_shared<Outputs>(); }
    std::shared_ptr<SubDevice> createCntDevice() override { return counters = std::make_shared<Counters>(); }
    void initialize() override {
        TestDevice::initialize();
        can = std::make_shared<CanPorts>();
        can->setParent(shared_from_this());
        push_back(can);
    }
    std::shared_ptr<Counters> counters;
    std::shared_ptr<CanPorts> can;
};

class ClassesOfRoutesTest : public testing::Test, protected Bench {};

ConfigurationAction actionOf(const PropertyInfoPtr& info, ConfigurationMode mode, PropertyState state) {
    ConfigurationAction action{};
    checkErrorInfo(info->getConfigurationAction(mode, state, &action));
    return action;
}

std::string choicesOf(const PropertyInfoPtr& info) {
    return textOf(asBase(info.getValuesAsList()));
}

struct ChannelKindsTest : testing::Test, protected Bench {
    ChannelKindsTest() : device(std::make_shared<ManyKinds>()) { build({device}); }

    const DaqRTOperation classes{*structure, data};
    std::shared_ptr<ManyKinds> device;
};

TEST_F(ChannelKindsTest, AnalogOutputsHaveARoute) {
    EXPECT_FALSE(folder("Bench 8").hasProperty("BaseClock"));  // without analog inputs
    const auto output = channel("Out 1");
    const GenericPropertyObjectPtr route(output.getPropertyValue("RTC").asPtr<IPropertyObject>());
    EXPECT_EQ(route.getClassName(), StringPtr("RTC_AO"));
    EXPECT_EQ(route.getPropertyValue<int>("ScalingType"), 0);
    EXPECT_EQ(choicesOf(route.getPropertyInfo("ScalingType")), "[Direct, From range]");
    EXPECT_FALSE(route.getPropertyValue<bool>("Enabled"));
    output.setPropertyValue("RTC.Enabled", true);
    EXPECT_TRUE(route.getPropertyValue<bool>("Enabled"));
    // A setup that has the route brings it, one without leaves it.
    const auto info = output.getPropertyInfo("RTC");
    EXPECT_EQ(actionOf(info, 1, 2), ConfigurationAction::TakeOver);
    EXPECT_EQ(actionOf(info, 1, 4), ConfigurationAction::TakeOver);
    EXPECT_EQ(actionOf(info, 1, 1), ConfigurationAction::Leave);
    EXPECT_EQ(actionOf(route.getPropertyInfo("Enabled"), 1, 1), ConfigurationAction::TakeOver);
}

TEST_F(ChannelKindsTest, CanPortsAndWhatAStartReadsBack) {
    const auto first = channel("CAN 0");
    const auto third = channel("CAN 2");
    EXPECT_EQ(first.getPropertyValue<int>("BaudRate"), 250000);
    EXPECT_EQ(choicesOf(first.getPropertyInfo("BaudRate")),
              "[1000000, 500000, 400000, 250000, 200000, 125000, 100000, 62500, 50000, 33333, 31250]");
    EXPECT_EQ(choicesOf(first.getPropertyInfo("OperationMode")), "[ReadOnly, ReadWriteAcq]");
    EXPECT_EQ(first.getPropertyValue<std::string>("OperationMode"), "ReadOnly");
    EXPECT_EQ(third.getPropertyValue<std::string>("OperationMode"), "ReadWriteAcq");
    const GenericPropertyObjectPtr route(first.getPropertyValue("RTC").asPtr<IPropertyObject>());
    EXPECT_EQ(route.getClassName(), StringPtr("RTC_CAN_V1"));
    EXPECT_EQ(route.getPropertyValue<int>("OutputRate"), 10);
    EXPECT_FALSE(route.getPropertyValue<bool>("Enabled"));
    EXPECT_EQ(ListPtr(route.getPropertyValue("Messages").asPtr<IList>()).getCount(), 0u);
    for (const char* name : {"BaudRate", "OperationMode", "RTC"}) {
        EXPECT_FALSE(channel("CAN 1").hasProperty(name)) << name;
    }

    first.setPropertyValue("BaudRate", 1000000);
    first.setPropertyValue("OperationMode", "ReadWriteAcq");
    third.setPropertyValue("OperationMode", "ReadOnly");
    const auto& ports = device->can->ports;
    ports[1]->baudRate = 7;
    reserve({});
    structure->beforeStart();
    EXPECT_EQ(ports[0]->baudRate, 1000000);
    EXPECT_EQ(ports[0]->writeEnable, 1);
    EXPECT_EQ(ports[2]->baudRate, 500000);
    EXPECT_EQ(ports[2]->writeEnable, 0);
    EXPECT_EQ(ports[1]->baudRate, 7);  // an output has no settings of its own
}

TEST_F(ChannelKindsTest, CounterSettingsStandOnTheFolder) {
    struct Row {
        const char* name;
        int usual;
        const char* texts;
        int CntChannel::*field;
        int chosen;
    };
    const Row rows[] = {
        {"BaseMode", 0, "[AngleSensor, EvCounting, Timing]", &CntChannel::baseMode, 2},
        {"CountingMode", 0, "[Simple, Gated, UpDown, EncoderCount]", &CntChannel::countingMode, 3},
        {"TimingMode", 0, "[Period, PulseWidth, DutyCycle, EdgeSep, Frequency]", &CntChannel::timingMode, 4},
        {"FilterDelay", 0, "[Off, _500ns, _1us, _2us, _4us, _5us, _7_5us]", &CntChannel::filterDelay, 6},
        {"EncoderMode", 0, "[X1, X2, X4]", &CntChannel::encoderMode, 1},
        {"Source", 0, "[]", &CntChannel::source, 11},
        {"Gate", 1, "[]", &CntChannel::gate, 12},
        {"SourceInvert", 0, "[]", &CntChannel::sourceInvert, 13},
        {"GateInvert", 0, "[]", &CntChannel::gateInvert, 14},
        {"AuxInvert", 0, "[]", &CntChannel::auxInvert, 15},
        {"ZEnabled", 0, "[]", &CntChannel::zEnabled, 16},
    };
    const auto counter = folder("Counter 1");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto info = counter.getPropertyInfo(row.name);
        EXPECT_EQ(counter.getPropertyValue<int>(row.name), row.usual);
        EXPECT_EQ(choicesOf(info), row.texts);
        EXPECT_EQ(info.isHidden(), row.texts == std::string("[]"));
        counter.setPropertyValue(row.name, row.chosen);
    }
    // Where the channel starts, though the property starts elsewhere.
    EXPECT_EQ(fromValue<int>(counter.getPropertyInfo("Source").getReadOnlyValue()), 3);
    EXPECT_FALSE(fromValue<bool>(counter.getPropertyInfo("Source").getReadOnly()));
    for (const char* name : {"ZEnabled", "ResetOnStartMeasure", "AdvancedCountingMode"}) {
        EXPECT_TRUE(fromValue<bool>(counter.getPropertyInfo(name).getVisible())) << name;
        EXPECT_TRUE(counter.getPropertyInfo(name).isHidden()) << name;
    }
    counter.setPropertyValue("CntBaseClock", 5);
    EXPECT_EQ(counter.getPropertyValue<int>("CntBaseClock"), 80000000);
    EXPECT_FALSE(folder("Counters").hasProperty("BaseMode"));
    EXPECT_FALSE(channel("Count").hasProperty("BaseMode"));

    counter.setPropertyValue("ResetOnStartMeasure", false);
    counter.setPropertyValue("AdvancedCountingMode", true);
    const auto& channels = device->counters->all;
    channels[1]->source = 99;
    reserve({});
    structure->beforeStart();
    for (const Row& row : rows) {
        EXPECT_EQ((*channels[0]).*row.field, row.chosen) << row.name;
    }
    EXPECT_FALSE(channels[0]->resetOnStartMeasure);
    EXPECT_TRUE(channels[0]->advancedCountingMode);
    EXPECT_EQ(channels[1]->source, 99);  // "Frequency" carries no settings
    // The user's defaults, not the channel's own beginnings.
    EXPECT_EQ(channels[2]->baseMode, 0);
    EXPECT_EQ(channels[2]->gate, 1);
    EXPECT_TRUE(channels[2]->resetOnStartMeasure);
}

// The classes are the process's; they go with the last one that needs them, whoever has registered them, and those of
// others stay.
TEST_F(ClassesOfRoutesTest, LiveWithTheModules) {
    using Names = std::vector<std::string>;
    const auto manager = PropertyObjectManagerPtr::create();
    const auto known = [&] {
        Names names;
        for (const char* name : {"RTC_CAN", "RTC_CAN_V1", "RTC_AO", "RTC_USERS"}) {
            if (manager.findClass(name)) {
                names.emplace_back(name);
            }
        }
        return names;
    };
    const Names all{"RTC_CAN", "RTC_CAN_V1", "RTC_AO", "RTC_USERS"};
    using Operation = std::unique_ptr<DaqRTOperation>;
    const auto join = [&] { return std::make_unique<DaqRTOperation>(*structure, data); };
    ASSERT_EQ(known(), Names());
    Operation first = join();
    Operation second = join();
    first.reset();
    EXPECT_EQ(known(), all);
    // Another library's module holds the same class and knows nothing else of this one's.
    auto stranger = manager.findClass("RTC_USERS");
    second.reset();
    EXPECT_EQ(known(), all);
    EXPECT_EQ(manager.findClass("RTC_CAN_V1").getParent(), StringPtr("RTC_CAN"));
    first = join();
    stranger.release();
    first.reset();
    EXPECT_EQ(known(), Names());

    auto foreign = PropertyObjectClassPtr::create();
    foreign.setName("RTC_AO");
    manager.addClass(foreign);
    first = join();
    second = join();
    first.reset();
    // One that somebody has taken away comes back with the next who needs it.
    manager.removeClass("RTC_CAN_V1");
    first = join();
    EXPECT_EQ(known(), all);
    first.reset();
    second.reset();
    EXPECT_EQ(known(), Names{"RTC_AO"});
    manager.removeClass("RTC_AO");
}

}  // namespace
