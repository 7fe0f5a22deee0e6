#include "modules/daq/synchronization/TimeSyncVcxo.h"

namespace Harvane::RT::Modules::Daq {

// Megahertz first: 200 * (1e-6 * 150e6) is 30000, (200 * 1e-6) * 150e6 is a hair below it and would be cut to 29999.
TimeSyncVcxo::TimeSyncVcxo(double clockFrequency, std::uint64_t vcxoPwmRange, double calibratedVcxoPwm, double vcxoPpm)
    : clockFrequency(clockFrequency),
      vcxoPwmRange(vcxoPwmRange),
      calibratedVcxoPwm(calibratedVcxoPwm),
      vcxoPpm(vcxoPpm),
      frequencyErrorRange(static_cast<std::uint64_t>(vcxoPpm * (1e-6 * clockFrequency))) {}

double TimeSyncVcxo::getGradient(unsigned long) const {
    return 1.0;
}

}  // namespace Harvane::RT::Modules::Daq
