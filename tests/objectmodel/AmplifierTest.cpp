#include <gtest/gtest.h>

#include <tuple>

#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/RangeText.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

// An amplifier whose scalings are switched on.
struct ScalingAmplifier : Amplifier {
    explicit ScalingAmplifier(const std::string& measurement) { addMeasurementValue(measurement); }
    bool isBridgeExcScalingEnabled() const override { return true; }
    bool isCurrentScalingEnabled() const override { return true; }
    bool isResistanceScalingEnabled() const override { return true; }
    bool isSelectedExternalShuntUnitInmA() const override { return milliampere; }
    int calculateResistanceModeDeviceRangeIndex() const override { return 7; }
    bool milliampere = false;
};

}  // namespace

TEST(Amplifier, WithoutSettingsItLeavesValuesAlone) {
    Amplifier amplifier;
    EXPECT_EQ(amplifier.getId(), "0.0.0.0");
    EXPECT_EQ(amplifier.getMinValue(), -10.0);
    EXPECT_EQ(amplifier.getMaxValue(), 10.0);
    EXPECT_TRUE(amplifier.update());
    EXPECT_FALSE(amplifier.getAIChannel());
    amplifier.addMeasurementValue("Bridge");
    amplifier.edit([](AmplifierSettings& settings) { settings.excitationValue = 5.0; });
    EXPECT_EQ(amplifier.getScale(), 1.0);
    EXPECT_EQ(amplifier.settingsInForce(), amplifier.settings());
    EXPECT_FALSE(amplifier.lastFailure());
}

TEST(Amplifier, ScaleAndOffsetByMeasurement) {
    for (const auto& [measurement, excitation, shunt, milliampere, scale, offset] :
         {std::tuple{"Bridge", 0.0, 0.0, false, 10000.0, 3.5},
          {"Bridge", 0.1, 0.0, false, 10000.0, 3.5},
          {"Bridge", 0.0999, 0.0, false, 10000.0, 3.5},
          {"Bridge", 5.0, 0.0, false, 200.0, 3.5},
          {"Potentiometer", 2.0, 0.0, false, 500.0, 0.0},
          {"Resistance", 4.0, 0.0, false, 250.0, 0.0},
          {"Resistance", 0.0, 0.0, false, 10000.0, 0.0},
          {"Current", 5.0, 50.0, false, 0.02, 0.0},
          {"Current", 5.0, 50.0, true, 20.0, 0.0},
          {"Current", 5.0, 0.0, false, 10000.0, 0.0},
          {"Current", 5.0, 0.0, true, 10000000.0, 0.0},
          {"Current", 5.0, 0.0001, false, 10000.0, 0.0},
          {"Voltage", 5.0, 50.0, true, 1.0, 0.0},
          {"bridge", 5.0, 50.0, true, 1.0, 0.0}}) {
        ScalingAmplifier amplifier(measurement);
        amplifier.edit([&](AmplifierSettings& settings) {
            settings.excitationValue = excitation;
            settings.externalShuntResistance = shunt;
        });
        amplifier.milliampere = milliampere;
        amplifier.bridgeOffset = 3.5;
        EXPECT_DOUBLE_EQ(amplifier.getScale(), scale) << measurement << " " << excitation << " " << shunt;
        EXPECT_EQ(amplifier.getOffset(), offset) << measurement;
    }
}

TEST(Amplifier, BridgeDeviceRangeCoversTheRangeAroundTheOffset) {
    for (const auto& [offset, excitation, range, index] : {std::tuple{100.0, 5.0, "150", 0},
                                                           {0.0, 5.0, "150", 1},
                                                           {0.0, 5.0, "200", 1},
                                                           {0.0, 5.0, "200.5", 0},
                                                           {-60.0, 5.0, "150", 0},
                                                           {-50.0, 5.0, "150", 1},
                                                           {0.0, 5.0, "99999", 0},
                                                           {0.0, 0.0, "10000", 1},
                                                           {0.0, 5.0, "0.5", 1},
                                                           {0.0, 5.0, "+200.5", 0},
                                                           {0.0, 5.0, "+150 mV/V", 1}}) {
        Amplifier amplifier;
        amplifier.addMeasurementValue("Bridge");
        amplifier.addDeviceRange(10.0);
        amplifier.addDeviceRange(1.0);
        amplifier.addRangeValue(range);
        amplifier.bridgeOffset = offset;
        amplifier.edit([&](AmplifierSettings& settings) { settings.excitationValue = excitation; });
        EXPECT_EQ(amplifier.calculateRealDeviceRangeIndex(), index) << range << " " << offset;
        if (excitation > 0.0) {
            EXPECT_EQ(amplifier.getFullDeviceRangeMin(0), offset - 2000.0);
            EXPECT_EQ(amplifier.getFullDeviceRangeMax(0), offset + 2000.0);
        }
    }
}

TEST(Amplifier, DeviceRangeIndexOfOtherMeasurementsAndOfBadRanges) {
    for (const auto& [measurement, index] : {std::pair{"Resistance", 7}, {"Voltage", 2}}) {
        ScalingAmplifier amplifier(measurement);
        amplifier.edit([](AmplifierSettings& settings) { settings.rangeIndex = 2; });
        EXPECT_EQ(amplifier.calculateRealDeviceRangeIndex(), index);
        EXPECT_EQ(amplifier.calculateBridgeModeDeviceRangeIndex(), 2);
    }
    ScalingAmplifier bridge("Bridge");
    EXPECT_THROW(bridge.calculateRealDeviceRangeIndex(), std::invalid_argument);
    for (const char* text : {"wide", "+", "+-5", "++5", " + 5", "nan", "+inf"}) {
        bridge.clearRanges();
        bridge.addRangeValue(text);
        EXPECT_THROW(bridge.calculateRealDeviceRangeIndex(), std::invalid_argument) << text;
    }
    for (const char* text : {"10", "+10", " +10.0 mV/V", "\t1e1"}) {
        EXPECT_EQ(rangeFromText(text), 10.0) << text;
    }
    bridge.clearRanges();
    bridge.addRangeValue("1e999");
    EXPECT_THROW(bridge.calculateRealDeviceRangeIndex(), std::out_of_range);
}

TEST(Amplifier, AnIndexOutsideOfItsListIsHarmless) {
    // 1 is the size of most of the lists, 2 that of the range's ends.
    for (int index : {-1, 1, 2, 2147483647}) {
        Amplifier amplifier;
        amplifier.edit([index](AmplifierSettings& settings) {
            settings.measurementIndex = settings.rangeIndex = settings.bridgeTypeIndex = index;
            settings.inputTypeIndex = settings.hpFilterIndex = index;
        });
        amplifier.addMeasurementValue("Bridge");
        amplifier.addBridgeType("Full");
        amplifier.addInputType("Single");
        amplifier.addHpFilter("DC");
        amplifier.addMinValue(-5.0);
        amplifier.addMaxValue(5.0);
        EXPECT_EQ(
            amplifier.getMeasureType() + amplifier.getBridgeType() + amplifier.getInputType() + amplifier.getCoupling(),
            "");
        EXPECT_EQ(amplifier.getMinValue(), index < 0 ? -10.0 : -5.0);
        EXPECT_EQ(amplifier.getMaxValue(), index < 0 ? 10.0 : 5.0);
        amplifier.clearMaxValues();
        EXPECT_EQ(amplifier.getMaxValue(), 0.0);
        amplifier.bridgeOffset = 1.0;
        EXPECT_EQ(amplifier.getFullDeviceRangeMax(5), 1.0);
    }
}
