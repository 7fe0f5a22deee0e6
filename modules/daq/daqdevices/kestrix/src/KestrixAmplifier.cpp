#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"

#include <stdexcept>

#include "shared/libraries/kestrix/src/AmplifierProperties.h"
#include "shared/libraries/kestrix/src/KestrixLogger.h"

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
        return false;
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
