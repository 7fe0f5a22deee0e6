#pragma once

#include <vector>

#include "modules/daq/synchronization/TimeSyncVcxo.h"

namespace Harvane::RT::Modules::Daq {

// The instrument's oscillator. Its offset in ppm is a polynomial in the control word, fitted over 0 to 1023; a higher
// control word means a lower frequency.
class TimeSyncVcxoLmk61e2 : public TimeSyncVcxo {
public:
    TimeSyncVcxoLmk61e2(double clockFrequency, std::uint64_t vcxoPwmRange, double calibratedVcxoPwm, double vcxoPpm);

    // Hz per step at 150 MHz, below 0 over the whole range of the control word.
    double getGradient(unsigned long pwm) const override;

private:
    // From the constant term up, ppm.
    std::vector<double> coefficients;
};

}  // namespace Harvane::RT::Modules::Daq
