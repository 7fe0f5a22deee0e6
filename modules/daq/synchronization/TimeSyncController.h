#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "modules/daq/synchronization/TimeSyncControllerMaxErrors.h"
#include "modules/daq/synchronization/TimeSyncVcxoLmk61e2.h"

namespace Harvane::RT::Modules::Daq {

// The law that steers the oscillator, once for each pulse of the reference. First it pulls the frequency in: each
// control word is the one that cancels the frequency error just measured. Two good pulses in a row ask for a
// resynchronisation in hardware (`error`), which the owner performs at the next start and acknowledges by clearing
// `error`. From then on it takes half of the phase error away with each pulse, about an equilibrium that it learns from
// the frequency errors.
//
// Any thread: the loop of the pulses calls the law while others reset or ask. What the law measures and decides goes to
// standard output.
class TimeSyncController {
public:
    // `maxErrors` stays the owner's, which changes it while this lives; it must outlive this object. `vcxo` is copied.
    TimeSyncController(double unused, const TimeSyncVcxoLmk61e2& vcxo, TimeSyncControllerMaxErrors& maxErrors);
    TimeSyncController(const TimeSyncController&) = delete;
    TimeSyncController& operator=(const TimeSyncController&) = delete;

    // Back to the pull-in from the calibrated control word, as for a new reference.
    void reset();

    // One pulse. `pwm`: the control word in force; `phaseError`: counts, positive when the local pulse is early;
    // `frequencyError`: counts since the pulse before, less nominal. `error` is the owner's, set and cleared on both
    // sides; `tracking` is an answer. Returns the next control word, not limited to its range: what is below 0 or too
    // large is for the owner to handle.
    long getNextPwmAfterPps(unsigned long pwm, std::int64_t phaseError, std::int64_t frequencyError,
                            std::atomic<bool>& error, bool& tracking);

    // The control word to hold while there is no reference. Changes nothing.
    long getNextPwmAfterSignalLost() const;

    // Best estimate of the control word that gives no frequency error, not rounded.
    double getEquilibriumPwm() const;

private:
    double calculateDesiredPwmFromMeasurements(unsigned long pwm, std::int64_t frequencyError) const;
    double calculateNextPwm(unsigned long pwm, std::int64_t phaseError) const;
    void addPwmToAverage(double value);

    // Guards what follows the limits; held for one pulse at most.
    mutable std::mutex mutex;
    const std::uint64_t averagingSamples = 20;
    const double smoothingFactor = 0.2;
    const TimeSyncVcxoLmk61e2 vcxo;
    TimeSyncControllerMaxErrors& maxErrors;
    // Pulses in a row with a small frequency error.
    std::uint32_t lockCount = 0;
    // Values taken into the average so far.
    std::uint64_t equilibriumSamples = 0;
    double equilibriumPwm = 0.0;
    // Still pulling the frequency in.
    bool mayResync = true;
};

}  // namespace Harvane::RT::Modules::Daq
