#pragma once

#include <cstdint>

// Output frequency of the voltage-controlled oscillator, set by a script of the platform.
class PlatformVCXOClockControl {
public:
    // In megahertz.
    enum ClockOption : uint8_t { CLOCK_10_MHZ = 10, CLOCK_15_MHZ = 15 };

    // False when the script refuses. Throws std::system_error when it can't be run.
    bool setClock(ClockOption option);
};
