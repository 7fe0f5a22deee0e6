#include "modules/daq/synchronization/TimeSyncVcxoLinear.h"

namespace Harvane::RT::Modules::Daq {

TimeSyncVcxoLinear::TimeSyncVcxoLinear(double clockFrequency, std::uint64_t vcxoPwmRange, double calibratedVcxoPwm,
                                       double vcxoPpm, double gradient)
    : TimeSyncVcxo(clockFrequency, vcxoPwmRange, calibratedVcxoPwm, vcxoPpm), gradient(gradient) {}

double TimeSyncVcxoLinear::getGradient(unsigned long) const {
    return gradient;
}

}  // namespace Harvane::RT::Modules::Daq
