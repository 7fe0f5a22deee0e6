#include "modules/daq/synchronization/TimeSyncControllerMaxErrors.h"

namespace Harvane::RT::Modules::Daq {

TimeSyncControllerMaxErrors::TimeSyncControllerMaxErrors(double, std::uint64_t maxPhaseError,
                                                         std::uint64_t maxFrequencyErrorBeforeResync)
    : maxPhaseError(maxPhaseError), maxFrequencyErrorBeforeResync(maxFrequencyErrorBeforeResync) {}

}  // namespace Harvane::RT::Modules::Daq
