#include "modules/daq/objectmodel/Amplifier.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/DaqAmplifierMeasurementsConsts.h"

namespace Harvane::RT::Modules::Daq {

namespace {

// Below these the divisions give no sensible scale.
constexpr double minExcitation = 0.1;
constexpr double minShuntResistance = 0.0001;
constexpr double scaleWithoutDivisor = 10000.0;

double excitationScale(double excitation) {
    return excitation < minExcitation ? scaleWithoutDivisor : 1000.0 / excitation;
}

// The number that a display name begins with, its point a point whatever the language of the process.
double rangeOf(const std::string& text) {
    double range = 0.0;
    const auto start = std::min(text.find_first_not_of(" \t"), text.size());
    const auto result = std::from_chars(text.data() + start, text.data() + text.size(), range);
    if (result.ec == std::errc::invalid_argument) {
        throw std::invalid_argument("the range \"" + text + "\" is no number.");
    }
    if (result.ec == std::errc::result_out_of_range) {
        throw std::out_of_range("the range \"" + text + "\" is beyond all numbers.");
    }
    return range;
}

}  // namespace

Amplifier::Amplifier() = default;
Amplifier::~Amplifier() = default;

void Amplifier::initialize() {}

bool Amplifier::update() {
    return true;
}

int Amplifier::getModuleType() {
    return 0;
}

double Amplifier::getScale() {
    const std::string type = getMeasureType();
    if (type == DaqAmplifierMeasurementsConsts::Bridge || type == DaqAmplifierMeasurementsConsts::Potentiometer) {
        return getBridgeExcitationScale();
    }
    if (type == DaqAmplifierMeasurementsConsts::Current) {
        return getCurrentScale();
    }
    if (type == DaqAmplifierMeasurementsConsts::Resistance) {
        return getResistanceScale();
    }
    return 1.0;
}

double Amplifier::getOffset() {
    return getMeasureType() == DaqAmplifierMeasurementsConsts::Bridge ? bridgeOffset.load() : 0.0;
}

double Amplifier::getMinValue() {
    return valueAt(minValues, rangeIndex);
}

double Amplifier::getMaxValue() {
    return valueAt(maxValues, rangeIndex);
}

int Amplifier::getSensorStatus() {
    return 0;
}

int Amplifier::readTeds(unsigned char*) {
    return 0;
}

int Amplifier::resetTedsCustom() {
    return 0;
}

int Amplifier::writeTedsCustom(unsigned char*, unsigned long) {
    return 0;
}

int Amplifier::readTedsCustom(unsigned char*, unsigned long) {
    return 0;
}

int Amplifier::finalizeTedsCustom() {
    return 0;
}

void Amplifier::notifyEnterChSetup() {}

void Amplifier::notifyLeaveChSetup() {}

int Amplifier::getHwCapabilities() {
    return 0;
}

int Amplifier::getConnectorType() {
    return 0;
}

int Amplifier::getFwCapabilities() {
    return 0;
}

bool Amplifier::isBridgeExcScalingEnabled() const {
    return false;
}

bool Amplifier::isCurrentScalingEnabled() const {
    return false;
}

bool Amplifier::isResistanceScalingEnabled() const {
    return false;
}

bool Amplifier::isSelectedExternalShuntUnitInmA() const {
    return false;
}

int Amplifier::calculateResistanceModeDeviceRangeIndex() const {
    return rangeIndex;
}

void Amplifier::updateDeviceRangeDuringAcquisition(int) {}

void Amplifier::updateCalibrationFactorsDuringAcquisition() {}

std::string Amplifier::getId() {
    return std::to_string(getModuleType()) + "." + std::to_string(getHwCapabilities()) + "." +
           std::to_string(getFwCapabilities()) + "." + std::to_string(getConnectorType());
}

std::string Amplifier::getMeasureType() const {
    return textAt(measurements, measurementIndex);
}

std::string Amplifier::getBridgeType() const {
    return textAt(bridgeTypes, bridgeTypeIndex);
}

std::string Amplifier::getInputType() const {
    return textAt(inputTypes, inputTypeIndex);
}

std::string Amplifier::getCoupling() const {
    return textAt(hpFilters, hpFilterIndex);
}

std::shared_ptr<AIChannel> Amplifier::getAIChannel() {
    auto device = getParent<AIDevice>();
    return device ? device->getAIChannel(index) : nullptr;
}

double Amplifier::getBridgeExcitationScale() const {
    return isBridgeExcScalingEnabled() ? excitationScale(excitationValue) : 1.0;
}

double Amplifier::getCurrentScale() const {
    if (!isCurrentScalingEnabled()) {
        return 1.0;
    }
    const double scale =
        externalShuntResistance < minShuntResistance ? scaleWithoutDivisor : 1.0 / externalShuntResistance;
    return isSelectedExternalShuntUnitInmA() ? scale * 1000.0 : scale;
}

double Amplifier::getResistanceScale() const {
    return isResistanceScalingEnabled() ? excitationScale(excitationValue) : 1.0;
}

double Amplifier::getFullDeviceRangeMin(unsigned long deviceRange) const {
    return -(valueAt(deviceRanges, static_cast<std::int64_t>(deviceRange)) * 1000.0) /
               std::max(excitationValue, minExcitation) +
           bridgeOffset;
}

double Amplifier::getFullDeviceRangeMax(unsigned long deviceRange) const {
    return valueAt(deviceRanges, static_cast<std::int64_t>(deviceRange)) * 1000.0 /
               std::max(excitationValue, minExcitation) +
           bridgeOffset;
}

int Amplifier::calculateBridgeModeDeviceRangeIndex() const {
    if (getMeasureType() != DaqAmplifierMeasurementsConsts::Bridge) {
        return rangeIndex;
    }
    const double range = rangeOf(textAt(ranges, rangeIndex));
    for (auto i = deviceRanges.size(); i-- > 0;) {
        if (getFullDeviceRangeMax(i) >= range && -range >= getFullDeviceRangeMin(i)) {
            return static_cast<int>(i);
        }
    }
    return 0;
}

int Amplifier::calculateRealDeviceRangeIndex() const {
    const std::string type = getMeasureType();
    if (type == DaqAmplifierMeasurementsConsts::Bridge) {
        return calculateBridgeModeDeviceRangeIndex();
    }
    if (type == DaqAmplifierMeasurementsConsts::Resistance) {
        return calculateResistanceModeDeviceRangeIndex();
    }
    return rangeIndex;
}

void Amplifier::clearMeasurementValues() {
    measurements.clear();
}

void Amplifier::addMeasurementValue(const std::string& value) {
    measurements.push_back(value);
}

void Amplifier::clearRanges() {
    ranges.clear();
}

void Amplifier::addRangeValue(const std::string& value) {
    ranges.push_back(value);
}

void Amplifier::clearMinValues() {
    minValues.clear();
}

void Amplifier::addMinValue(double value) {
    minValues.push_back(value);
}

void Amplifier::clearMaxValues() {
    maxValues.clear();
}

void Amplifier::addMaxValue(double value) {
    maxValues.push_back(value);
}

void Amplifier::clearLpFilters() {
    lpFilters.clear();
}

void Amplifier::addLpFilter(const std::string& value) {
    lpFilters.push_back(value);
}

void Amplifier::clearHpFilters() {
    hpFilters.clear();
}

void Amplifier::addHpFilter(const std::string& value) {
    hpFilters.push_back(value);
}

void Amplifier::clearInputTypes() {
    inputTypes.clear();
}

void Amplifier::addInputType(const std::string& value) {
    inputTypes.push_back(value);
}

void Amplifier::clearConnectionTypes() {
    connectionTypes.clear();
}

void Amplifier::addConnectionType(const std::string& value) {
    connectionTypes.push_back(value);
}

void Amplifier::clearExcitations() {
    excitations.clear();
}

void Amplifier::addExcitation(double value) {
    excitations.push_back(value);
}

void Amplifier::clearExcitationTypes() {
    excitationTypes.clear();
}

void Amplifier::addExcitationType(const std::string& value) {
    excitationTypes.push_back(value);
}

void Amplifier::clearExcitationUnits() {
    excitationUnits.clear();
}

void Amplifier::addExcitationUnit(const std::string& value) {
    excitationUnits.push_back(value);
}

void Amplifier::clearBridgeTypes() {
    bridgeTypes.clear();
}

void Amplifier::addBridgeType(const std::string& value) {
    bridgeTypes.push_back(value);
}

void Amplifier::clearBridgeShunts() {
    bridgeShunts.clear();
}

void Amplifier::addBridgeShunt(const std::string& value) {
    bridgeShunts.push_back(value);
}

void Amplifier::clearBridgeResistances() {
    bridgeResistances.clear();
}

void Amplifier::addBridgeResistance(double value) {
    bridgeResistances.push_back(value);
}

void Amplifier::clearDeviceRanges() {
    deviceRanges.clear();
}

void Amplifier::addDeviceRange(double value) {
    deviceRanges.push_back(value);
}

std::string Amplifier::textAt(const std::vector<std::string>& list, std::int64_t index) {
    return index >= 0 && static_cast<size_t>(index) < list.size() ? list[static_cast<size_t>(index)] : std::string();
}

double Amplifier::valueAt(const std::vector<double>& list, std::int64_t index) {
    if (list.empty()) {
        return 0.0;
    }
    return list[static_cast<size_t>(std::clamp<std::int64_t>(index, 0, static_cast<std::int64_t>(list.size()) - 1))];
}

}  // namespace Harvane::RT::Modules::Daq
