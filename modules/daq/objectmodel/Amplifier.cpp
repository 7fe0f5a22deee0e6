#include "modules/daq/objectmodel/Amplifier.h"

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
    const std::string type = settingsInForce()->measureType();
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
    return settingsInForce()->measureType() == DaqAmplifierMeasurementsConsts::Bridge ? bridgeOffset.load() : 0.0;
}

double Amplifier::getMinValue() {
    return settingsInForce()->minValue();
}

double Amplifier::getMaxValue() {
    return settingsInForce()->maxValue();
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
    return settings()->rangeIndex;
}

void Amplifier::updateDeviceRangeDuringAcquisition(int) {}

void Amplifier::updateCalibrationFactorsDuringAcquisition() {}

std::shared_ptr<const AmplifierSettings> Amplifier::settingsInForce() const {
    return settings();
}

bool Amplifier::areSettingsInForceKnown() const {
    return true;
}

void Amplifier::beginRequest() {}

std::shared_ptr<const AmplifierSettings> Amplifier::settings() const {
    const std::lock_guard lock(mutex_);
    return settings_;
}

void Amplifier::setSettings(AmplifierSettings settings) {
    auto next = std::make_shared<const AmplifierSettings>(std::move(settings));
    const std::lock_guard lock(mutex_);
    settings_.swap(next);
}

std::optional<AmplifierFailure> Amplifier::lastFailure() const {
    const std::lock_guard lock(mutex_);
    return failure_;
}

void Amplifier::setFailure(std::optional<AmplifierFailure> failure) {
    const std::lock_guard lock(mutex_);
    failure_ = std::move(failure);
}

std::shared_ptr<const AmplifierSettings> Amplifier::taken() const {
    const std::lock_guard lock(mutex_);
    return taken_;
}

void Amplifier::setTaken(std::shared_ptr<const AmplifierSettings> settings) {
    const std::lock_guard lock(mutex_);
    taken_.swap(settings);
}

std::string Amplifier::getId() {
    return std::to_string(getModuleType()) + "." + std::to_string(getHwCapabilities()) + "." +
           std::to_string(getFwCapabilities()) + "." + std::to_string(getConnectorType());
}

std::string Amplifier::getMeasureType() const {
    return settings()->measureType();
}

std::string Amplifier::getBridgeType() const {
    const auto now = settings();
    return AmplifierSettings::textAt(now->bridgeTypes, now->bridgeTypeIndex);
}

std::string Amplifier::getInputType() const {
    const auto now = settings();
    return AmplifierSettings::textAt(now->inputTypes, now->inputTypeIndex);
}

std::string Amplifier::getCoupling() const {
    const auto now = settings();
    return AmplifierSettings::textAt(now->hpFilters, now->hpFilterIndex);
}

std::shared_ptr<AIChannel> Amplifier::getAIChannel() {
    auto device = getParent<AIDevice>();
    return device ? device->getAIChannel(index) : nullptr;
}

double Amplifier::getBridgeExcitationScale() const {
    return isBridgeExcScalingEnabled() ? excitationScale(settingsInForce()->excitationValue) : 1.0;
}

double Amplifier::getCurrentScale() const {
    if (!isCurrentScalingEnabled()) {
        return 1.0;
    }
    const double resistance = settingsInForce()->externalShuntResistance;
    const double scale = resistance < minShuntResistance ? scaleWithoutDivisor : 1.0 / resistance;
    return isSelectedExternalShuntUnitInmA() ? scale * 1000.0 : scale;
}

double Amplifier::getResistanceScale() const {
    return isResistanceScalingEnabled() ? excitationScale(settingsInForce()->excitationValue) : 1.0;
}

double Amplifier::getFullDeviceRangeMin(unsigned long deviceRange) const {
    return settings()->fullDeviceRangeMin(static_cast<std::int64_t>(deviceRange), bridgeOffset);
}

double Amplifier::getFullDeviceRangeMax(unsigned long deviceRange) const {
    return settings()->fullDeviceRangeMax(static_cast<std::int64_t>(deviceRange), bridgeOffset);
}

int Amplifier::calculateBridgeModeDeviceRangeIndex() const {
    return settings()->bridgeDeviceRange(bridgeOffset);
}

int Amplifier::calculateRealDeviceRangeIndex() const {
    const std::string type = getMeasureType();
    if (type == DaqAmplifierMeasurementsConsts::Bridge) {
        return calculateBridgeModeDeviceRangeIndex();
    }
    if (type == DaqAmplifierMeasurementsConsts::Resistance) {
        return calculateResistanceModeDeviceRangeIndex();
    }
    return settings()->rangeIndex;
}

void Amplifier::clearMeasurementValues() {
    edit([](AmplifierSettings& now) { now.measurements.clear(); });
}

void Amplifier::addMeasurementValue(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.measurements.push_back(value); });
}

void Amplifier::clearRanges() {
    edit([](AmplifierSettings& now) { now.ranges.clear(); });
}

void Amplifier::addRangeValue(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.ranges.push_back(value); });
}

void Amplifier::clearMinValues() {
    edit([](AmplifierSettings& now) { now.minValues.clear(); });
}

void Amplifier::addMinValue(double value) {
    edit([&](AmplifierSettings& now) { now.minValues.push_back(value); });
}

void Amplifier::clearMaxValues() {
    edit([](AmplifierSettings& now) { now.maxValues.clear(); });
}

void Amplifier::addMaxValue(double value) {
    edit([&](AmplifierSettings& now) { now.maxValues.push_back(value); });
}

void Amplifier::clearLpFilters() {
    edit([](AmplifierSettings& now) { now.lpFilters.clear(); });
}

void Amplifier::addLpFilter(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.lpFilters.push_back(value); });
}

void Amplifier::clearHpFilters() {
    edit([](AmplifierSettings& now) { now.hpFilters.clear(); });
}

void Amplifier::addHpFilter(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.hpFilters.push_back(value); });
}

void Amplifier::clearInputTypes() {
    edit([](AmplifierSettings& now) { now.inputTypes.clear(); });
}

void Amplifier::addInputType(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.inputTypes.push_back(value); });
}

void Amplifier::clearConnectionTypes() {
    edit([](AmplifierSettings& now) { now.connectionTypes.clear(); });
}

void Amplifier::addConnectionType(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.connectionTypes.push_back(value); });
}

void Amplifier::clearExcitations() {
    edit([](AmplifierSettings& now) { now.excitations.clear(); });
}

void Amplifier::addExcitation(double value) {
    edit([&](AmplifierSettings& now) { now.excitations.push_back(value); });
}

void Amplifier::clearExcitationTypes() {
    edit([](AmplifierSettings& now) { now.excitationTypes.clear(); });
}

void Amplifier::addExcitationType(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.excitationTypes.push_back(value); });
}

void Amplifier::clearExcitationUnits() {
    edit([](AmplifierSettings& now) { now.excitationUnits.clear(); });
}

void Amplifier::addExcitationUnit(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.excitationUnits.push_back(value); });
}

void Amplifier::clearBridgeTypes() {
    edit([](AmplifierSettings& now) { now.bridgeTypes.clear(); });
}

void Amplifier::addBridgeType(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.bridgeTypes.push_back(value); });
}

void Amplifier::clearBridgeShunts() {
    edit([](AmplifierSettings& now) { now.bridgeShunts.clear(); });
}

void Amplifier::addBridgeShunt(const std::string& value) {
    edit([&](AmplifierSettings& now) { now.bridgeShunts.push_back(value); });
}

void Amplifier::clearBridgeResistances() {
    edit([](AmplifierSettings& now) { now.bridgeResistances.clear(); });
}

void Amplifier::addBridgeResistance(double value) {
    edit([&](AmplifierSettings& now) { now.bridgeResistances.push_back(value); });
}

void Amplifier::clearDeviceRanges() {
    edit([](AmplifierSettings& now) { now.deviceRanges.clear(); });
}

void Amplifier::addDeviceRange(double value) {
    edit([&](AmplifierSettings& now) { now.deviceRanges.push_back(value); });
}

}  // namespace Harvane::RT::Modules::Daq
