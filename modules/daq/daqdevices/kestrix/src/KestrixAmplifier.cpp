#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "shared/libraries/kestrix/src/AmplifierProperties.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq {

namespace {

std::optional<AmplifierFailure> failureOf(const std::string& step, const std::string& reason) {
    return AmplifierFailure{step, reason, std::chrono::system_clock::now()};
}

}  // namespace

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

// What goes to the module, in this order, when the amplifier has it.
struct KestrixAmplifier::Row {
    using Properties = Shared::Kestrix::AmplifierProperties;

    const char* step;
    bool (*present)(const AmplifierSettings&);
    double (*value)(const AmplifierSettings&);
    void (*send)(Properties&, double);
};

const std::array<KestrixAmplifier::Row, 8> KestrixAmplifier::rows = {{
    {"Measurement", [](const AmplifierSettings& s) { return !s.measurements.empty(); },
     [](const AmplifierSettings& s) { return double(s.measurementIndex); },
     [](Row::Properties& p, double v) { p.setMeasurementType(static_cast<unsigned char>(std::int32_t(v))); }},
    {"Range", [](const AmplifierSettings& s) { return !s.ranges.empty(); },
     [](const AmplifierSettings& s) { return double(s.rangeIndex); },
     [](Row::Properties& p, double v) { p.setRange(static_cast<unsigned char>(std::int32_t(v))); }},
    {"LPFilter", [](const AmplifierSettings& s) { return !s.lpFilters.empty(); },
     [](const AmplifierSettings& s) { return double(s.lpFilterIndex); },
     [](Row::Properties& p, double v) { p.setLPFilter(static_cast<unsigned char>(std::int32_t(v))); }},
    {"HPFilter", [](const AmplifierSettings& s) { return !s.hpFilters.empty(); },
     [](const AmplifierSettings& s) { return double(s.hpFilterIndex); },
     [](Row::Properties& p, double v) { p.setInputCoupling(static_cast<short>(std::int32_t(v))); }},
    {"InputType", [](const AmplifierSettings& s) { return !s.inputTypes.empty(); },
     [](const AmplifierSettings& s) { return double(s.inputTypeIndex); },
     [](Row::Properties& p, double v) { p.setInputType(static_cast<short>(std::int32_t(v))); }},
    {"Excitation", [](const AmplifierSettings& s) { return !s.excitations.empty(); },
     [](const AmplifierSettings& s) { return s.excitationValue; },
     [](Row::Properties& p, double v) { p.setExcitationValue(static_cast<float>(v)); }},
    {"ExcitationType", [](const AmplifierSettings& s) { return !s.excitationTypes.empty(); },
     [](const AmplifierSettings& s) { return double(s.excitationTypeIndex); },
     [](Row::Properties& p, double v) { p.setExcitationType(static_cast<unsigned char>(std::int32_t(v))); }},
    {"Short", [](const AmplifierSettings& s) { return s.shortPresent; },
     [](const AmplifierSettings& s) { return s.shortOn ? 1.0 : 0.0; },
     [](Row::Properties& p, double v) { p.setShort(v != 0.0 ? 1 : 0); }},
}};

KestrixAmplifier::Request KestrixAmplifier::requestOf(const AmplifierSettings& settings) {
    Request request;
    std::transform(rows.begin(), rows.end(), request.begin(), [&](const Row& row) {
        return row.present(settings) ? std::optional(row.value(settings)) : std::nullopt;
    });
    return request;
}

bool KestrixAmplifier::update() {
    if (getModuleType() <= 0) {
        return true;
    }
    const Request request = requestOf(*settings());
    const char* step = "";
    try {
        step = "Selection";
        properties_->enableChannel();
        for (size_t i = 0; i < rows.size(); ++i) {
            if (request[i]) {
                step = rows[i].step;
                rows[i].send(*properties_, *request[i]);
            }
        }
        step = "Update";
        if (const auto failure = properties_->applySettings()) {
            // An update that was taken is in force, also where its calibration could not be read.
            if (properties_->getSettingsInForce() && failure->what() == std::string("update scaling")) {
                setTaken(settings());
                step = "Scaling";
            }
            return fail(request, step, failure->failure);
        }
    } catch (const Shared::Kestrix::SettingFailure& failure) {
        KESTRIX_LOG(5, "Amplifier update failed: write of {} failed!\n", failure.what());
        return fail(request, step, failure.failure);
    } catch (const std::runtime_error& error) {
        KESTRIX_LOG(5, "Amplifier update failed: write of {} failed!\n", error.what());
        return fail(request, step, {.reason = std::string("bus error: ") + error.what()});
    } catch (const std::logic_error& error) {
        fail(request, step, {.reason = std::string("bus error: ") + error.what()});
        throw;
    }
    setTaken(settings());
    // A round that only succeeds with what was gone back to is no answer to what was asked for.
    if (fallback_ != request) {
        fallback_.reset();
        setFailure(properties_->isScalingReported() ? std::nullopt : failureOf("Scaling", "not a number"));
    }
    return true;
}

// In every case all is sent afresh next time: the module may hold less, or more, than was acknowledged. What fails of
// the settings that were gone back to doesn't hide what was refused.
bool KestrixAmplifier::fail(const Request& request, const std::string& step,
                            const Shared::Kestrix::LinkFailure& failure) {
    properties_->dropStaged();
    if (fallback_ != request) {
        setFailure(failureOf(step, failure.reason));
    }
    const auto inForce = taken();
    if (failure.refused && inForce) {
        setSettings(takenBack(*inForce, *settings()));
        if (const Request back = requestOf(*settings()); back != request) {
            fallback_ = back;
        }
    }
    return false;
}

// What hangs on the measurement goes back with it, lists and places alike; what the module is never told stays as it
// was asked for.
AmplifierSettings KestrixAmplifier::takenBack(const AmplifierSettings& inForce, const AmplifierSettings& requested) {
    AmplifierSettings settings = inForce;
    settings.connectionTypeIndex = requested.connectionTypeIndex;
    settings.excitationUnitIndex = requested.excitationUnitIndex;
    settings.bridgeTypeIndex = requested.bridgeTypeIndex;
    settings.bridgeShuntIndex = requested.bridgeShuntIndex;
    settings.bridgeShuntValue = requested.bridgeShuntValue;
    settings.bridgeLeg = requested.bridgeLeg;
    settings.bridgeResistance = requested.bridgeResistance;
    settings.bridgeWires = requested.bridgeWires;
    settings.externalShuntIndex = requested.externalShuntIndex;
    settings.externalShuntResistance = requested.externalShuntResistance;
    settings.externalShuntPower = requested.externalShuntPower;
    settings.shunt = requested.shunt;
    settings.altExcPolarity = requested.altExcPolarity;
    settings.deviceRangeIndex = requested.deviceRangeIndex;
    return settings;
}

void KestrixAmplifier::beginRequest() {
    fallback_.reset();
}

std::shared_ptr<const AmplifierSettings> KestrixAmplifier::settingsInForce() const {
    if (properties_->getModuleType() <= 0) {
        return settings();
    }
    const auto inForce = taken();
    return inForce ? inForce : std::make_shared<const AmplifierSettings>();
}

bool KestrixAmplifier::areSettingsInForceKnown() const {
    return properties_->getModuleType() <= 0 || (taken() && properties_->getSettingsInForce());
}

int KestrixAmplifier::getModuleType() {
    return properties_->getModuleType();
}

double KestrixAmplifier::getScale() {
    return properties_->getDaqScale();
}

double KestrixAmplifier::getOffset() {
    return properties_->getDaqOffset() + Amplifier::getOffset();
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
