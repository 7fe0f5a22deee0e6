#include "modules/daq/objectmodel/AmplifierSettings.h"

#include <algorithm>

#include "modules/daq/objectmodel/DaqAmplifierMeasurementsConsts.h"
#include "modules/daq/objectmodel/RangeText.h"

namespace Harvane::RT::Modules::Daq {

namespace {

// Below this the division gives no sensible range.
constexpr double minExcitation = 0.1;

}  // namespace

double AmplifierSettings::fullDeviceRangeMin(std::int64_t deviceRange, double bridgeOffset) const {
    return -(valueAt(deviceRanges, deviceRange) * 1000.0) / std::max(excitationValue, minExcitation) + bridgeOffset;
}

double AmplifierSettings::fullDeviceRangeMax(std::int64_t deviceRange, double bridgeOffset) const {
    return valueAt(deviceRanges, deviceRange) * 1000.0 / std::max(excitationValue, minExcitation) + bridgeOffset;
}

int AmplifierSettings::bridgeDeviceRange(double bridgeOffset) const {
    if (measureType() != DaqAmplifierMeasurementsConsts::Bridge) {
        return rangeIndex;
    }
    const double range = rangeFromText(textAt(ranges, rangeIndex));
    for (auto i = static_cast<std::int64_t>(deviceRanges.size()); i-- > 0;) {
        if (fullDeviceRangeMax(i, bridgeOffset) >= range && -range >= fullDeviceRangeMin(i, bridgeOffset)) {
            return static_cast<int>(i);
        }
    }
    return 0;
}

std::string AmplifierSettings::textAt(const Texts& list, std::int64_t index) {
    return index >= 0 && static_cast<size_t>(index) < list.size() ? list[static_cast<size_t>(index)] : std::string();
}

double AmplifierSettings::valueAt(const Numbers& list, std::int64_t index) {
    if (list.empty()) {
        return 0.0;
    }
    return list[static_cast<size_t>(std::clamp<std::int64_t>(index, 0, static_cast<std::int64_t>(list.size()) - 1))];
}

}  // namespace Harvane::RT::Modules::Daq
