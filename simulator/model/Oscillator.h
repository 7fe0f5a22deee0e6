#pragma once

#include <cstdint>
#include <mutex>

#include "simulator/model/Clock.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

// The board's oscillator, 150 MHz nominal. Its own time runs in counts over 150e6: what the converters, the clock
// counter and the timing core know of time. Thread-safe; a leaf: calls nothing but the clock.
class Oscillator {
public:
    static constexpr double nominal = 150e6;  // Hz

    Oscillator(const Clock& clock, const Scenario& scenario);

    // Its own time now, in seconds that are as long as it makes them; 0 when the instrument was made.
    double seconds() const;
    // The same at an instant of the instrument's time near now. An instant before the control word last changed or the
    // last whole second is told by the frequency since.
    double secondsAt(double instant) const;

    // Takes effect at `instant`.
    void setWord(uint16_t word, double instant);
    uint16_t word() const;
    double pull() const;  // its frequency over the nominal one, now

private:
    void advance(double instant) const;
    double pullOf(double second) const;

    const Clock& clock_;
    const OscillatorScenario curve_;
    const double errorPpm_;
    const uint64_t seed_;
    mutable std::mutex mutex_;
    uint16_t word_;
    // Since `since_` it has run at the rate `pull_`; a piece ends with a whole second of the instrument's time.
    mutable double since_ = 0.0;
    mutable double own_ = 0.0;
    mutable double pull_ = 1.0;
};

}  // namespace kestrixsim
