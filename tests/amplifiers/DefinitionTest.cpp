#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/amplifiers/DefinitionFile.h"

// The definition files that are delivered, against what the amplifiers are built for.
using namespace Harvane::RT::Core;

namespace {

using Texts = std::vector<std::string>;
using Numbers = std::vector<double>;

struct Mode {
    const char* measurement;
    const char* unit;
    Numbers ranges;       // each is + and - so much; the order is that of the hardware's numbers
    Texts couplings;
    bool excited;
};

struct Hardware {
    const char* file;
    const char* identifier;
    std::vector<Mode> modes;
    Texts filters;
    Texts inputs;
    bool inputsInEveryMode;
    Numbers excitations;
    const char* excitationUnit;
    bool excitationIsSelection;
    bool canShort;
    bool lamp;
    Texts slots;          // functions and procedures of the channel
};

const Texts tedsChip = {"ReadTeds", "ResetTedsCustom", "WriteTedsCustom", "ReadTedsCustom", "GetSensorStatus"};

const Hardware amplifiers[] = {
    {"fast-voltage.json", "1.0.1.1",
     {{"Voltage", "V", {10, 5, 1, 0.1}, {"DC", "AC 1 Hz"}, false}},
     {"Off", "1 MHz", "100 kHz", "10 kHz", "1 kHz"}, {"Differential", "Single ended"}, true, {}, "", false, true, true,
     {}},
    {"bridge.json", "2.1.3.2",
     {{"Bridge", "mV/V", {10, 5, 2, 1}, {"DC"}, true},
      {"Voltage", "V", {10, 1}, {"DC"}, false},
      {"Potentiometer", "%", {100}, {"DC"}, true}},
     {"Off", "100 kHz", "10 kHz", "1 kHz", "100 Hz"}, {"Full bridge", "Half bridge", "Quarter bridge"}, false,
     {0, 1, 2.5, 5, 10}, "V", true, true, true,
     {"ReadTeds", "ResetTedsCustom", "WriteTedsCustom", "ReadTedsCustom", "FinalizeTedsCustom", "GetSensorStatus",
      "StartSensorBalance", "GetSensorBalanceStatus", "ResetSensorBalance"}},
    {"iepe.json", "3.0.3.1",
     {{"IEPE", "V", {10, 5, 1}, {"AC 0.1 Hz", "AC 1 Hz"}, true},
      {"Voltage", "V", {10, 5, 1}, {"DC", "AC 0.1 Hz", "AC 1 Hz"}, false}},
     {"Off", "100 kHz", "10 kHz"}, {"Single ended"}, true, {4, 8}, "mA", false, false, true, tedsChip},
    {"high-voltage.json", "4.2.1.4",
     {{"Voltage", "V", {1000, 400, 200, 50}, {"DC"}, false}},
     {"Off", "300 kHz", "30 kHz"}, {"Differential"}, true, {}, "", false, false, false, {}},
};

// What an operator knows from the text of a choice must be what it does.
double leadingNumber(const std::string& text) {
    return std::stod(text);
}

Texts textsOf(const ListPtr& list) {
    Texts texts;
    for (size_t i = 0; i < list.getCount(); ++i) {
        texts.push_back(fromValue<std::string>(list.getItemAt(i)));
    }
    return texts;
}

Numbers numbersOf(const ListPtr& list) {
    Numbers numbers;
    for (size_t i = 0; i < list.getCount(); ++i) {
        numbers.push_back(fromValue<double>(list.getItemAt(i)));
    }
    return numbers;
}

std::string nameOf(const Hardware& hardware) {
    std::string name = hardware.file;
    name.resize(name.find('.'));
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

class Definition : public testing::TestWithParam<Hardware> {
protected:
    void SetUp() override {
        definition = std::make_unique<DefinitionFile>(std::filesystem::path(KESTRIX_AMPLIFIERS) / hardware.file);
        objectClass = definition->objectClass;
        channel = definition->channel;
    }

    ListPtr choices(const char* property) const { return channel.getPropertyInfo(property).getValuesAsList(); }

    bool visible(const char* property) const {
        const BasePtr attribute = channel.getPropertyInfo(property).getVisible();
        return !attribute || fromValue<bool>(attribute);
    }

    const Hardware& hardware = GetParam();
    std::unique_ptr<DefinitionFile> definition;
    PropertyObjectClassPtr objectClass;
    GenericPropertyObjectPtr channel;
};

TEST_P(Definition, namesItsAmplifier) {
    EXPECT_EQ(hardware.identifier, fromValue<std::string>(objectClass.getProperty("AmplifierID").getReadOnlyValue()));
    EXPECT_NE("", channel.getPropertyValue<std::string>("ModuleName"));
    EXPECT_TRUE(channel.hasProperty("SampleRate")) << "what every channel has";
}

TEST_P(Definition, choicesOfEachMeasurementAreTheHardwares) {
    ASSERT_EQ(hardware.modes.size(), choices("Measurement").getCount());
    for (size_t i = 0; i < hardware.modes.size(); ++i) {
        const Mode& mode = hardware.modes[i];
        channel.setPropertyValue("Measurement", static_cast<int64_t>(i));
        EXPECT_EQ(mode.measurement, textsOf(choices("Measurement"))[i]);

        const PropertyInfoPtr range = channel.getPropertyInfo("Range");
        EXPECT_TRUE(range.isSelection());
        EXPECT_EQ(mode.unit, fromValue<std::string>(range.getUnit())) << mode.measurement;
        const ListPtr items = range.getValuesAsList();
        ASSERT_EQ(mode.ranges.size(), items.getCount()) << mode.measurement;
        for (size_t k = 0; k < mode.ranges.size(); ++k) {
            const GenericPropertyObjectPtr item = items.getItemAt(k).asPtr<IPropertyObject>();
            EXPECT_EQ(mode.ranges[k], item.getPropertyValue<double>("Max")) << mode.measurement << k;
            EXPECT_EQ(-mode.ranges[k], item.getPropertyValue<double>("Min")) << mode.measurement << k;
            EXPECT_EQ(mode.ranges[k], leadingNumber(item.getPropertyValue<std::string>("DisplayName")));
        }
        // Every index can be chosen and stands where the measurement looks for it.
        for (size_t k = 0; k < mode.ranges.size(); ++k) {
            channel.setPropertyValue("Range", static_cast<int64_t>(k));
            EXPECT_EQ(static_cast<int64_t>(k), channel.getPropertyValue<int64_t>("Range"));
        }

        EXPECT_EQ(mode.couplings, textsOf(choices("HPFilter"))) << mode.measurement;
        EXPECT_EQ(hardware.filters, textsOf(choices("LPFilter")));
        EXPECT_EQ(hardware.inputs, textsOf(choices("InputType")));
        EXPECT_EQ(hardware.inputsInEveryMode || i == 0, visible("InputType")) << mode.measurement;
        if (!hardware.excitations.empty()) {
            EXPECT_EQ(mode.excited, visible("Excitation")) << mode.measurement;
        }
    }
}

TEST_P(Definition, rangeOfOneMeasurementSurvivesAnother) {
    // Lists of their own keep choices of their own; one list for all keeps one choice.
    const size_t last = hardware.modes[0].ranges.size() - 1;
    channel.setPropertyValue("Range", static_cast<int64_t>(last));
    for (size_t i = 1; i < hardware.modes.size(); ++i) {
        channel.setPropertyValue("Measurement", static_cast<int64_t>(i));
        const bool shared = hardware.modes[i].ranges == hardware.modes[0].ranges;
        EXPECT_EQ(shared ? last : 0u, static_cast<size_t>(channel.getPropertyValue<int>("Range")));
    }
    channel.setPropertyValue("Measurement", 0);
    EXPECT_EQ(last, static_cast<size_t>(channel.getPropertyValue<int>("Range")));
}

TEST_P(Definition, excitation) {
    ASSERT_EQ(!hardware.excitations.empty(), channel.hasProperty("Excitation"));
    if (hardware.excitations.empty()) {
        return;
    }
    const PropertyInfoPtr info = channel.getPropertyInfo("Excitation");
    EXPECT_EQ(hardware.excitationUnit, fromValue<std::string>(info.getUnit()));
    EXPECT_EQ(hardware.excitationIsSelection, info.isSelection());
    EXPECT_EQ(hardware.excitationIsSelection ? CoreType::Int : CoreType::Float, info.getValueType());
    EXPECT_EQ(hardware.excitations, numbersOf(info.getValuesAsList()));
    const double value = channel.getPropertyValue<double>("Excitation");
    const double chosen = hardware.excitationIsSelection ? hardware.excitations.at(static_cast<size_t>(value)) : value;
    EXPECT_EQ(1, std::count(hardware.excitations.begin(), hardware.excitations.end(), chosen));
    EXPECT_GT(chosen, 0.0) << "a sensor that nobody set up is alive";
}

TEST_P(Definition, hasExactlyWhatTheHardwareCanDo) {
    EXPECT_EQ(hardware.canShort, channel.hasProperty("Short"));
    ASSERT_EQ(hardware.lamp, channel.hasProperty("SupportsLed1Control"));
    if (hardware.lamp) {
        EXPECT_TRUE(channel.getPropertyValue<bool>("SupportsLed1Control"));
    }
    IPropertyObject* object = nullptr;
    checkErrorInfo(createPropertyObject(&object, nullptr, StringPtr(ChannelPropertyClass::ClassName).get()));
    const GenericPropertyObjectPtr plain = ObjectPtr<IPropertyObject>::take(object);
    Texts slots;
    std::set<std::string> own;
    for (const PropertyInfoPtr& info : channel.enumProperties(PropertyOrder::Index)) {
        own.insert(info.getName().toStdString());
        const CoreType type = info.getValueType();
        if (!plain.hasProperty(info.getName()) && (type == CoreType::Proc || type == CoreType::Func)) {
            slots.push_back(info.getName().toStdString());
        }
    }
    Texts wanted = hardware.slots;
    std::sort(slots.begin(), slots.end());
    std::sort(wanted.begin(), wanted.end());
    EXPECT_EQ(wanted, slots);
    for (const std::string& name : wanted) {
        const bool procedure = name == "StartSensorBalance" || name == "ResetSensorBalance";
        EXPECT_EQ(procedure ? CoreType::Proc : CoreType::Func, channel.getPropertyInfo(name).getValueType()) << name;
    }
    EXPECT_EQ(own.count("BridgeOffset"), own.count("StartSensorBalance"));
    EXPECT_EQ(own.count("BridgeOffset"), own.count("DeviceRanges"));
    if (own.count("DeviceRanges") != 0) {
        // Volts of the bridge's signal: with the highest excitation they are the ranges in mV/V.
        const Numbers deviceRanges = numbersOf(choices("DeviceRanges"));
        ASSERT_EQ(hardware.modes[0].ranges.size(), deviceRanges.size());
        for (size_t i = 0; i < deviceRanges.size(); ++i) {
            EXPECT_DOUBLE_EQ(hardware.modes[0].ranges[i], deviceRanges[i] * 1000.0 / hardware.excitations.back());
        }
    }
}

TEST_P(Definition, nothingIsEverDisabled) {
    // The module reads and writes every property in every mode: what does not apply is only out of sight.
    for (size_t i = 0; i < hardware.modes.size(); ++i) {
        channel.setPropertyValue("Measurement", static_cast<int64_t>(i));
        for (const char* name : {"Range", "LPFilter", "HPFilter", "InputType", "Excitation", "ExcitationType", "Short",
                                 "DeviceRanges", "BridgeOffset"}) {
            if (channel.hasProperty(name)) {
                EXPECT_NO_THROW(channel.getPropertyValue<>(name)) << name;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, Definition, testing::ValuesIn(amplifiers),
                         [](const auto& info) { return nameOf(info.param); });

TEST(Definitions, everyFileIsKnownAndDistinct) {
    std::set<std::string> known;
    for (const Hardware& hardware : amplifiers) {
        known.insert(hardware.file);
    }
    std::set<std::string> files;
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KESTRIX_AMPLIFIERS)) {
        files.insert(entry.path().filename().string());
        const PropertyObjectClassPtr objectClass = DefinitionFile::load(entry.path());
        EXPECT_TRUE(names.insert(objectClass.getName().toStdString()).second) << entry.path();
    }
    EXPECT_EQ(known, files);
}

}  // namespace
