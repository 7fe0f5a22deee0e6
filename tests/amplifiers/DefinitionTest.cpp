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
    Numbers ranges;  // each is + and - so much; the order is that of the hardware's numbers
    Texts couplings;
    bool excited;
};

struct Hardware {
    const char* file;
    std::vector<Mode> modes;
    Texts filters;
    Texts inputs;
    bool inputsInEveryMode;
    Numbers excitations;
    const char* excitationUnit;
    bool excitationIsSelection;
};

const Hardware amplifiers[] = {
    {"fast-voltage.json",
     {{"Voltage", "V", {10, 5, 1, 0.1}, {"DC", "AC 1 Hz"}, false}},
     {"Off", "1 MHz", "100 kHz", "10 kHz", "1 kHz"},
     {"Differential", "Single ended"},
     true,
     {},
     "",
     false},
    {"bridge.json",
     {{"Bridge", "mV/V", {10, 5, 2, 1}, {"DC"}, true},
      {"Voltage", "V", {10, 1}, {"DC"}, false},
      {"Potentiometer", "%", {100}, {"DC"}, true}},
     {"Off", "100 kHz", "10 kHz", "1 kHz", "100 Hz"},
     {"Full bridge", "Half bridge", "Quarter bridge"},
     false,
     {0, 1, 2.5, 5, 10},
     "V",
     true},
    {"iepe.json",
     {{"IEPE", "V", {10, 5, 1}, {"AC 0.1 Hz", "AC 1 Hz"}, true},
      {"Voltage", "V", {10, 5, 1}, {"DC", "AC 0.1 Hz", "AC 1 Hz"}, false}},
     {"Off", "100 kHz", "10 kHz"},
     {"Single ended"},
     true,
     {4, 8},
     "mA",
     false},
    {"high-voltage.json",
     {{"Voltage", "V", {1000, 400, 200, 50}, {"DC"}, false}},
     {"Off", "300 kHz", "30 kHz"},
     {"Differential"},
     true,
     {},
     "",
     false},
};

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
        channel = definition->channel;
    }

    ListPtr choices(const char* property) const { return channel.getPropertyInfo(property).getValuesAsList(); }

    bool visible(const char* property) const {
        const BasePtr attribute = channel.getPropertyInfo(property).getVisible();
        return !attribute || fromValue<bool>(attribute);
    }

    const Hardware& hardware = GetParam();
    std::unique_ptr<DefinitionFile> definition;
    GenericPropertyObjectPtr channel;
};

TEST_P(Definition, choicesOfEachMeasurementAreTheHardwares) {
    EXPECT_NE("", channel.getPropertyValue<std::string>("ModuleName"));
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
            EXPECT_EQ(mode.ranges[k], std::stod(item.getPropertyValue<std::string>("DisplayName")));
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

// Volts of the bridge's signal: with the highest excitation they are the ranges in mV/V.
TEST_P(Definition, balancingHasTheRangesOfTheHardware) {
    EXPECT_EQ(channel.hasProperty("BridgeOffset"), channel.hasProperty("StartSensorBalance"));
    ASSERT_EQ(channel.hasProperty("BridgeOffset"), channel.hasProperty("DeviceRanges"));
    if (!channel.hasProperty("DeviceRanges")) {
        return;
    }
    const Numbers deviceRanges = numbersOf(choices("DeviceRanges"));
    ASSERT_EQ(hardware.modes[0].ranges.size(), deviceRanges.size());
    for (size_t i = 0; i < deviceRanges.size(); ++i) {
        EXPECT_DOUBLE_EQ(hardware.modes[0].ranges[i], deviceRanges[i] * 1000.0 / hardware.excitations.back());
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
