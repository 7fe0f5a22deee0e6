#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "simulator/model/Firmware.h"
#include "tests/amplifiers/DefinitionFile.h"

// The definition files against the program of the simulated amplifiers: what a file offers, the amplifier takes, and
// nothing beyond it.
using namespace Harvane::RT::Core;
using kestrixsim::AmplifierKind;
using kestrixsim::Firmware;

namespace {

// What a user is shown of a measurement, which the amplifier knows nothing of.
struct Mode {
    const char* measurement;
    const char* unit;
    bool excited;
    bool inputs;
};

struct Delivered {
    AmplifierKind kind;
    const char* file;
    std::vector<Mode> modes;
};

const Delivered amplifiers[] = {
    {AmplifierKind::Voltage, "fast-voltage.json", {{"Voltage", "V", false, true}}},
    {AmplifierKind::Bridge,
     "bridge.json",
     {{"Bridge", "mV/V", true, true}, {"Voltage", "V", false, false}, {"Potentiometer", "%", true, false}}},
    {AmplifierKind::Iepe, "iepe.json", {{"IEPE", "V", true, true}, {"Voltage", "V", false, true}}},
    {AmplifierKind::HighVoltage, "high-voltage.json", {{"Voltage", "V", false, true}}},
};

struct Agreement : testing::TestWithParam<Delivered> {
    Agreement()
        : definition(std::filesystem::path(KESTRIX_AMPLIFIERS) / GetParam().file),
          firmware(moduleOf(GetParam().kind), 1, 1) {}

    static kestrixsim::ModuleScenario moduleOf(AmplifierKind kind) {
        kestrixsim::ModuleScenario module;
        module.kind = kind;
        return module;
    }

    int send(uint8_t command, const std::vector<uint8_t>& payload = {}) {
        return firmware.execute(command, payload).status;
    }

    std::string identity() {
        std::string text;
        for (const uint8_t command : {0xA7, 0x65, 0x66, 0x63}) {
            text += (text.empty() ? "" : ".") + std::to_string(firmware.execute(command, {}).data.at(0));
        }
        return text;
    }

    bool visible(const char* name) {
        const BasePtr attribute = definition.channel.getPropertyInfo(name).getVisible();
        return !attribute || fromValue<bool>(attribute);
    }

    ListPtr choices(const char* name) { return definition.channel.getPropertyInfo(name).getValuesAsList(); }

    // A setting by its place, or by its bytes, and the update: 0, or the status of what was refused.
    int apply(uint8_t command, const std::vector<uint8_t>& payload) {
        const int staged = send(command, payload);
        return staged != 0 ? staged : send(0x67);
    }
    int apply(uint8_t command, size_t place) { return apply(command, std::vector{static_cast<uint8_t>(place)}); }

    // Every place of a list is taken, the one behind it refused, by the setting or by the update.
    void walk(uint8_t command, const char* name) {
        const size_t count = choices(name).getCount();
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(0, apply(command, i)) << name << i;
        }
        EXPECT_NE(0, apply(command, count)) << name;
        EXPECT_EQ(0, apply(command, size_t{0}));
    }

    int excite(double value) {
        const auto number = static_cast<float>(value);
        std::vector<uint8_t> bytes(4);
        std::memcpy(bytes.data(), &number, 4);
        return apply(0xB9, bytes);
    }

    DefinitionFile definition;
    Firmware firmware;
};

TEST_P(Agreement, everyChoiceIsTakenAndNoMore) {
    EXPECT_EQ(identity(), definition.channel.getPropertyValue<std::string>("AmplifierID"));
    const size_t measurements = choices("Measurement").getCount();
    ASSERT_EQ(GetParam().modes.size(), measurements);
    EXPECT_NE(0, send(0x60, {static_cast<uint8_t>(measurements)}));
    for (size_t m = 0; m < measurements; ++m) {
        EXPECT_EQ(0, apply(0x60, m));
        definition.channel.setPropertyValue("Measurement", static_cast<int64_t>(m));
        const Mode& mode = GetParam().modes[m];
        EXPECT_EQ(mode.measurement, fromValue<std::string>(choices("Measurement").getItemAt(m)));
        EXPECT_EQ(mode.unit, fromValue<std::string>(definition.channel.getPropertyInfo("Range").getUnit()));
        EXPECT_EQ(mode.inputs, visible("InputType")) << mode.measurement;
        if (definition.channel.hasProperty("Excitation")) {
            EXPECT_EQ(mode.excited, visible("Excitation")) << mode.measurement;
        }
        walk(0xBC, "Range");
        walk(0xC8, "LPFilter");
        walk(0xC3, "HPFilter");
        walk(0xC9, "InputType");
        if (definition.channel.hasProperty("ExcitationType")) {
            walk(0x6A, "ExcitationType");
        }
        const ListPtr ranges = choices("Range");
        for (size_t i = 0; i < ranges.getCount(); ++i) {
            EXPECT_EQ(0, apply(0xBC, i));
            const GenericPropertyObjectPtr item = ranges.getItemAt(i).asPtr<IPropertyObject>();
            const auto end = item.getPropertyValue<double>("Max");
            EXPECT_EQ(-end, item.getPropertyValue<double>("Min")) << m << i;
            EXPECT_EQ(end, std::stod(item.getPropertyValue<std::string>("DisplayName")));
            EXPECT_NEAR(end, 32768.0 / firmware.frontEnd().countsPerUnit / firmware.scale(), end * 1e-9) << m << i;
            // It stands where the measurement looks for it.
            definition.channel.setPropertyValue("Range", static_cast<int64_t>(i));
            EXPECT_EQ(static_cast<int64_t>(i), definition.channel.getPropertyValue<int64_t>("Range"));
        }
        EXPECT_EQ(0, send(0xBC, {0}));
        // The text of a coupling says whether it lets a constant pass.
        const ListPtr couplings = choices("HPFilter");
        for (size_t i = 0; i < couplings.getCount(); ++i) {
            EXPECT_EQ(0, apply(0xC3, i));
            const std::string text = fromValue<std::string>(couplings.getItemAt(i));
            const double hertz = text == "DC" ? 0.0 : std::stod(text.substr(3));
            EXPECT_EQ(hertz, firmware.frontEnd().highPassHz) << text;
        }
        EXPECT_EQ(0, send(0xC3, {0}));
    }
    // Filters say their corner, but for the first.
    const ListPtr filters = choices("LPFilter");
    for (size_t i = 1; i < filters.getCount(); ++i) {
        EXPECT_EQ(0, apply(0xC8, i));
        const std::string text = fromValue<std::string>(filters.getItemAt(i));
        const double factor = text.ends_with("MHz") ? 1e6 : text.ends_with("kHz") ? 1e3 : 1.0;
        EXPECT_EQ(std::stod(text) * factor, firmware.frontEnd().lowPassHz) << text;
    }
}

TEST_P(Agreement, whatTheFileSaysItCanItCan) {
    const auto has = [&](const char* name) { return definition.channel.hasProperty(name); };
    EXPECT_EQ(has("Short"), send(0xB7, {1}) == 0);
    EXPECT_EQ(has("SupportsLed1Control"), send(0xF2, {1}) == 0);
    EXPECT_EQ(has("ReadTeds"), send(0xD0) == 0);
    EXPECT_EQ(has("FinalizeTedsCustom"), send(0xD1, {0x04}) == 0);
    EXPECT_EQ(has("GetSensorStatus"), firmware.execute(0xF0, {}).data.at(0) != 0);
    EXPECT_EQ(0, send(0xB7, {0}));
    if (!has("Excitation")) {
        EXPECT_NE(0, excite(5.0)) << "nor has the amplifier";
        return;
    }
    const ListPtr excitations = choices("Excitation");
    for (size_t i = 0; i < excitations.getCount(); ++i) {
        EXPECT_EQ(0, excite(fromValue<double>(excitations.getItemAt(i)))) << i;
    }
    EXPECT_NE(0, excite(6.0));
    const auto value = definition.channel.getPropertyValue<double>("Excitation");
    const bool selection = definition.channel.getPropertyInfo("Excitation").isSelection();
    EXPECT_EQ(GetParam().kind == AmplifierKind::Bridge ? "V" : "mA",
              fromValue<std::string>(definition.channel.getPropertyInfo("Excitation").getUnit()));
    EXPECT_GT(selection ? fromValue<double>(excitations.getItemAt(static_cast<size_t>(value))) : value, 0.0)
        << "a sensor that nobody set up is alive";
    EXPECT_EQ(has("StartSensorBalance"), has("BridgeOffset"));
    ASSERT_EQ(has("StartSensorBalance"), has("DeviceRanges"));
    if (has("DeviceRanges")) {
        // Volts of the bridge's signal: with the highest excitation they are the ranges in mV/V.
        ASSERT_EQ(choices("Range").getCount(), choices("DeviceRanges").getCount());
        const auto highest = fromValue<double>(excitations.getItemAt(excitations.getCount() - 1));
        for (size_t i = 0; i < choices("Range").getCount(); ++i) {
            const GenericPropertyObjectPtr item = choices("Range").getItemAt(i).asPtr<IPropertyObject>();
            EXPECT_DOUBLE_EQ(item.getPropertyValue<double>("Max"),
                             fromValue<double>(choices("DeviceRanges").getItemAt(i)) * 1000.0 / highest);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Agreement, testing::ValuesIn(amplifiers));

TEST(Definitions, everyFileIsKnownAndDistinct) {
    size_t files = 0;
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KESTRIX_AMPLIFIERS)) {
        ++files;
        EXPECT_TRUE(names.insert(DefinitionFile::load(entry.path()).getName().toStdString()).second) << entry.path();
    }
    EXPECT_EQ(std::size(amplifiers), files);
}

}  // namespace
