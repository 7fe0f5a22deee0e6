#pragma once

#include <cstdint>

namespace Harvane::RT::Modules::Daq {

// A voltage-controlled oscillator as its discipline sees it. The control word is called PWM throughout, after the way
// in which the voltage is made. Immutable; any thread.
class TimeSyncVcxo {
public:
    // `clockFrequency`: nominal, Hz. `vcxoPwmRange`: largest control word. `calibratedVcxoPwm`: control word at which
    // the oscillator is taken to be on frequency. `vcxoPpm`: pull range, parts per million.
    TimeSyncVcxo(double clockFrequency, std::uint64_t vcxoPwmRange, double calibratedVcxoPwm, double vcxoPpm);
    TimeSyncVcxo(const TimeSyncVcxo&) = default;
    TimeSyncVcxo& operator=(const TimeSyncVcxo&) = default;
    virtual ~TimeSyncVcxo() = default;

    // Change of frequency per step of the control word, Hz, at control word `pwm`.
    virtual double getGradient(unsigned long pwm) const;

    double getClockFrequency() const { return clockFrequency; }
    std::uint64_t getVcxoPwmRange() const { return vcxoPwmRange; }
    double getCalibratedVcxoPwm() const { return calibratedVcxoPwm; }
    double getVcxoPpm() const { return vcxoPpm; }
    // The pull range in whole Hz.
    std::uint64_t getFrequencyErrorRange() const { return frequencyErrorRange; }

private:
    double clockFrequency;
    std::uint64_t vcxoPwmRange;
    double calibratedVcxoPwm;
    double vcxoPpm;
    std::uint64_t frequencyErrorRange;
};

}  // namespace Harvane::RT::Modules::Daq
