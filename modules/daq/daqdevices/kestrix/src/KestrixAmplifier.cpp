#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <type_traits>

#include "shared/libraries/kestrix/src/AmplifierProperties.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq {

KestrixAmplifier::KestrixAmplifier(std::shared_ptr<Shared::Kestrix::AmplifierProperties> properties)
    : properties_(std::move(properties)) {}

KestrixAmplifier::~KestrixAmplifier() = default;

void KestrixAmplifier::initialize() {
    Amplifier::initialize();
    if (getModuleType() > 0) {
        serialNumber = properties_->getSerial();
        hardwareRevision = properties_->getHwVersion();
        softwareRevision = properties_->getFwVersion();
        properties_->getCalibrationDate(calibrationDate);
    }
}

bool KestrixAmplifier::update() {
    if (getModuleType() <= 0) {
        return true;
    }
    try {
        writeSettings();
        return properties_->updateProperties();
    } catch (const std::runtime_error& error) {
        KESTRIX_LOG(5, "Amplifier update failed: write of {} failed!\n", error.what());
        takeBackSettings();
        return false;
    }
}

// A setting that was refused, or not even sent, must not look as if it were in force. What the module has never been
// told stays as it was asked for.
void KestrixAmplifier::takeBackSettings() {
    const auto& device = properties_->getDeviceProperties();
    const Shared::Kestrix::AmplifierRecord unknown;
    const auto takeBack = [](auto& setting, auto value, auto unknownValue) {
        if (value != unknownValue) {
            setting = static_cast<std::remove_reference_t<decltype(setting)>>(value);
        }
    };
    takeBack(measurementIndex, device.measurementType, unknown.measurementType);
    takeBack(rangeIndex, device.range, unknown.range);
    takeBack(lpFilterIndex, device.lpFilter, unknown.lpFilter);
    takeBack(hpFilterIndex, device.inputCoupling, unknown.inputCoupling);
    takeBack(inputTypeIndex, device.inputType, unknown.inputType);
    takeBack(excitationTypeIndex, device.excitationType, unknown.excitationType);
    takeBack(shortOn, device.shortOn, unknown.shortOn);
    // A value that was never set is not a number.
    if (std::isfinite(device.excitationValue)) {
        excitationValue = device.excitationValue;
        const auto choice = std::find_if(excitations.begin(), excitations.end(), [&](double value) {
            return static_cast<float>(value) == device.excitationValue;
        });
        if (choice != excitations.end()) {
            excitationIndex = static_cast<std::int32_t>(choice - excitations.begin());
        }
    }
}

void KestrixAmplifier::writeSettings() {
    properties_->enableChannel();
    if (!measurements.empty()) {
        properties_->setMeasurementType(static_cast<unsigned char>(measurementIndex));
    }
    if (!ranges.empty()) {
        properties_->setRange(static_cast<unsigned char>(rangeIndex));
    }
    if (!lpFilters.empty()) {
        properties_->setLPFilter(static_cast<unsigned char>(lpFilterIndex));
    }
    if (!hpFilters.empty()) {
        properties_->setInputCoupling(static_cast<short>(hpFilterIndex));
    }
    if (!inputTypes.empty()) {
        properties_->setInputType(static_cast<short>(inputTypeIndex));
    }
    if (!excitations.empty()) {
        properties_->setExcitationValue(static_cast<float>(excitationValue));
    }
    if (!excitationTypes.empty()) {
        properties_->setExcitationType(static_cast<unsigned char>(excitationTypeIndex));
    }
    if (shortPresent) {
        properties_->setShort(shortOn ? 1 : 0);
    }
}

int KestrixAmplifier::getModuleType() {
    return properties_->getModuleType();
}

double KestrixAmplifier::getScale() {
    return properties_->getDaqScale();
}

double KestrixAmplifier::getOffset() {
    return properties_->getDaqOffset();
}

int KestrixAmplifier::getSensorStatus() {
    return properties_->getSensorStatus();
}

int KestrixAmplifier::readTeds(unsigned char* data) {
    return properties_->readTeds(data);
}

int KestrixAmplifier::resetTedsCustom() {
    return properties_->resetTedsCustom();
}

int KestrixAmplifier::writeTedsCustom(unsigned char* data, unsigned long size) {
    return properties_->writeTedsCustom(data, size);
}

int KestrixAmplifier::readTedsCustom(unsigned char* data, unsigned long size) {
    return properties_->readTedsCustom(data, size);
}

int KestrixAmplifier::finalizeTedsCustom() {
    return properties_->finalizeTedsCustom();
}

void KestrixAmplifier::notifyEnterChSetup() {
    if (ledControl) {
        properties_->setLed1Function(true);
    }
}

void KestrixAmplifier::notifyLeaveChSetup() {
    if (ledControl) {
        properties_->setLed1Function(false);
    }
}

int KestrixAmplifier::getHwCapabilities() {
    return properties_->getHwCapabilities();
}

int KestrixAmplifier::getConnectorType() {
    return properties_->getConnectorType();
}

int KestrixAmplifier::getFwCapabilities() {
    return properties_->getFwCapabilities();
}

}  // namespace Harvane::RT::Modules::Daq
