#pragma once

#include <atomic>
#include <cstdint>

namespace Harvane::RT::Modules::Daq {

// Limits of the discipline, in counts of the 150 MHz clock per pulse. The owner changes the phase limit at each start
// of an acquisition while the law reads it: any thread.
class TimeSyncControllerMaxErrors {
public:
    // `clockFrequency`: Hz; the limits are counts already, so nothing depends on it.
    TimeSyncControllerMaxErrors(double clockFrequency, std::uint64_t maxPhaseError,
                                std::uint64_t maxFrequencyErrorBeforeResync);

    void setMaxPhaseError(std::uint64_t counts) { maxPhaseError = counts; }
    // A phase error as large as this asks for a resynchronisation.
    std::uint64_t getMaxPhaseError() const { return maxPhaseError; }
    // A frequency error as large as this does not count towards lock.
    std::uint64_t getMaxFrequencyErrorBeforeResync() const { return maxFrequencyErrorBeforeResync; }

private:
    std::atomic<std::uint64_t> maxPhaseError;
    const std::uint64_t maxFrequencyErrorBeforeResync;
};

}  // namespace Harvane::RT::Modules::Daq
