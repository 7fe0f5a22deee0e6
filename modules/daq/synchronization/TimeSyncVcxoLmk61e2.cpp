#include "modules/daq/synchronization/TimeSyncVcxoLmk61e2.h"

#include <cstddef>

namespace Harvane::RT::Modules::Daq {

namespace {

// One part per million of 150 MHz, Hz.
constexpr double hertzPerPpm = 150.0;

}  // namespace

TimeSyncVcxoLmk61e2::TimeSyncVcxoLmk61e2(double clockFrequency, std::uint64_t vcxoPwmRange, double calibratedVcxoPwm,
                                         double vcxoPpm)
    : TimeSyncVcxo(clockFrequency, vcxoPwmRange, calibratedVcxoPwm, vcxoPpm),
      coefficients{294.672578, -1.59290872, 0.0041816254, -6.46582698e-06, 5.14665407e-09, -1.6166499e-12} {}

double TimeSyncVcxoLmk61e2::getGradient(unsigned long pwm) const {
    double ppmPerStep = 0.0;
    double power = 1.0;
    for (std::size_t i = 1; i < coefficients.size(); ++i) {
        ppmPerStep += static_cast<double>(i) * coefficients[i] * power;
        power *= static_cast<double>(pwm);
    }
    return ppmPerStep * hertzPerPpm;
}

}  // namespace Harvane::RT::Modules::Daq
