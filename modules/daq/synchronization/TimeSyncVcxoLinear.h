#pragma once

#include "modules/daq/synchronization/TimeSyncVcxo.h"

namespace Harvane::RT::Modules::Daq {

// An oscillator whose frequency is a straight line over the control word.
class TimeSyncVcxoLinear : public TimeSyncVcxo {
public:
    // `gradient`: Hz per step of the control word; the rest as for `TimeSyncVcxo`.
    TimeSyncVcxoLinear(double clockFrequency, std::uint64_t vcxoPwmRange, double calibratedVcxoPwm, double vcxoPpm,
                       double gradient);

    double getGradient(unsigned long pwm) const override;

private:
    double gradient;
};

}  // namespace Harvane::RT::Modules::Daq
