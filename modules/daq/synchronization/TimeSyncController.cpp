#include "modules/daq/synchronization/TimeSyncController.h"

#include <cmath>
#include <cstdio>

namespace Harvane::RT::Modules::Daq {

namespace {

// Only a small frequency error says where the equilibrium is: farther out the model of the oscillator is too coarse.
constexpr double averagedPartOfRange = 0.01;
// Part of the phase error that one pulse takes away.
constexpr double phaseGain = 0.5;
// Good pulses in a row that mean lock.
constexpr std::uint32_t pulsesToLock = 2;

std::uint64_t magnitude(std::int64_t value) {
    return value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
}

}  // namespace

TimeSyncController::TimeSyncController(double, const TimeSyncVcxoLmk61e2& vcxo, TimeSyncControllerMaxErrors& maxErrors)
    : vcxo(vcxo), maxErrors(maxErrors) {
    reset();
}

void TimeSyncController::reset() {
    const std::lock_guard lock(mutex);
    lockCount = 0;
    equilibriumSamples = 0;
    equilibriumPwm = vcxo.getCalibratedVcxoPwm();
    mayResync = true;
}

long TimeSyncController::getNextPwmAfterPps(unsigned long pwm, std::int64_t phaseError, std::int64_t frequencyError,
                                            std::atomic<bool>& error, bool& tracking) {
    const std::lock_guard lock(mutex);
    if (static_cast<double>(magnitude(frequencyError)) <
        averagedPartOfRange * static_cast<double>(vcxo.getFrequencyErrorRange())) {
        addPwmToAverage(calculateDesiredPwmFromMeasurements(pwm, frequencyError));
    }
    // The owner may clear the flag at any moment: one look decides for this pulse.
    const bool resyncWanted = error;
    std::printf("Daqtime sync ERROR %d\n", resyncWanted ? 1 : 0);

    if (!mayResync && !resyncWanted) {
        tracking = true;
        if (magnitude(phaseError) < maxErrors.getMaxPhaseError()) {
            return std::lround(calculateNextPwm(pwm, phaseError));
        }
        std::printf("PERIOD MATCH NEEDS RESYNC\n");
        error = true;
        return std::lround(equilibriumPwm);
    }

    std::printf("MAY RESYNC\n");
    if (magnitude(frequencyError) < maxErrors.getMaxFrequencyErrorBeforeResync()) {
        ++lockCount;
        mayResync = lockCount < pulsesToLock;
        error = !mayResync;
        tracking = !mayResync;
    } else {
        lockCount = 0;
        tracking = false;
    }
    return std::lround(calculateDesiredPwmFromMeasurements(pwm, frequencyError));
}

long TimeSyncController::getNextPwmAfterSignalLost() const {
    return std::lround(getEquilibriumPwm());
}

double TimeSyncController::getEquilibriumPwm() const {
    const std::lock_guard lock(mutex);
    return equilibriumPwm;
}

double TimeSyncController::calculateDesiredPwmFromMeasurements(unsigned long pwm, std::int64_t frequencyError) const {
    const double steps = static_cast<double>(frequencyError) / vcxo.getGradient(pwm);
    const double desired = static_cast<double>(pwm) - steps;
    std::printf("Gradient %lf\n", steps);
    std::printf("Frequency fix %lf\n", desired);
    return desired;
}

// The gradient is that of the control word in force; the correction is laid about the equilibrium.
double TimeSyncController::calculateNextPwm(unsigned long pwm, std::int64_t phaseError) const {
    const double gradient = vcxo.getGradient(pwm);
    std::printf("Gradient %lf\n", static_cast<double>(phaseError) / gradient);
    return equilibriumPwm - static_cast<double>(phaseError) * phaseGain / gradient;
}

// A mean of the first values, the calibrated one not among them, then a smoothed follower.
void TimeSyncController::addPwmToAverage(double value) {
    if (equilibriumSamples < averagingSamples) {
        const auto taken = static_cast<double>(equilibriumSamples);
        equilibriumPwm = (taken * equilibriumPwm + value) / (taken + 1.0);
        ++equilibriumSamples;
        std::printf("SAMPLES Equilibrium PWM: %lf\n", equilibriumPwm);
    } else {
        equilibriumPwm = smoothingFactor * value + (1.0 - smoothingFactor) * equilibriumPwm;
        std::printf("Equilibrium PWM: %lf\n", equilibriumPwm);
    }
}

}  // namespace Harvane::RT::Modules::Daq
