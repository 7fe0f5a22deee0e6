#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Harvane::RT::Modules::Daq {

// All settings of a signal conditioner with their lists of choices, as one value: whoever holds a copy has lists and
// places that belong together.
//
// The place beside a list comes from the host and may lie outside of the list. The operations here answer then with
// "" for a text and with the nearest entry for a number (0.0 for an empty list).
struct AmplifierSettings {
    using Texts = std::vector<std::string>;
    using Numbers = std::vector<double>;

    std::string measureType() const { return textAt(measurements, measurementIndex); }
    double minValue() const { return valueAt(minValues, rangeIndex); }
    double maxValue() const { return valueAt(maxValues, rangeIndex); }

    // Hardware range in the bridge's unit, around the balance offset, which has the same unit.
    double fullDeviceRangeMin(std::int64_t deviceRange, double bridgeOffset) const;
    double fullDeviceRangeMax(std::int64_t deviceRange, double bridgeOffset) const;
    // The last device range that covers the chosen range around the offset, the first one as the fallback; for other
    // measurements the chosen range. std::invalid_argument or std::out_of_range for a range text that is no number.
    int bridgeDeviceRange(double bridgeOffset) const;

    // Entry of a list by a place that need not be in it.
    static std::string textAt(const Texts& list, std::int64_t index);
    static double valueAt(const Numbers& list, std::int64_t index);

    bool operator==(const AmplifierSettings&) const = default;

    std::string rangeUnit;  // Unit of the ranges and of the channel.
    Texts measurements;
    std::int32_t measurementIndex = 0;
    Texts ranges;  // Display names; for a bridge each is a number in text form.
    std::int32_t rangeIndex = 0;
    std::int32_t deviceRangeIndex = 0;
    Numbers deviceRanges;      // Ranges of the hardware.
    Numbers minValues{-10.0};  // Lower end of each range choice.
    Numbers maxValues{10.0};   // Upper end of each range choice.
    Texts lpFilters;
    std::int32_t lpFilterIndex = 0;
    Texts hpFilters;  // The texts serve as the coupling.
    std::int32_t hpFilterIndex = 0;
    Texts inputTypes;
    std::int32_t inputTypeIndex = 0;
    Texts bridgeTypes;
    std::int32_t bridgeTypeIndex = 0;
    double bridgeShuntValue = 0.0;
    Texts bridgeShunts;
    std::int32_t bridgeShuntIndex = 0;
    std::int32_t bridgeLeg = 0;
    std::int32_t externalShuntIndex = 0;
    double externalShuntResistance = 0.0;  // Ohm.
    double externalShuntPower = 0.0;
    double excitationValue = 0.0;
    std::int32_t excitationIndex = 0;
    Numbers excitations;
    double bridgeResistance = 0.0;  // Ohm.
    Numbers bridgeResistances;
    Texts excitationTypes;
    std::int32_t excitationTypeIndex = 0;
    Texts excitationUnits;
    std::int32_t excitationUnitIndex = 0;
    Texts connectionTypes;
    std::int32_t connectionTypeIndex = 0;
    bool shortPresent = false;  // The channel has a short switch at all.
    bool shortOn = false;       // The short switch.
    bool shunt = false;
    bool altExcPolarity = false;
    std::int32_t bridgeWires = 0;
};

}  // namespace Harvane::RT::Modules::Daq
