#pragma once

namespace Harvane::RT::Modules::Daq {

// How a device's clock relates to others. The host stores the numbers.
enum class SynchronizationMode : int {
    None = 0,        // No option.
    Standalone = 1,  // Runs on its own oscillator.
    SoftSync = 2,    // No hardware reference: its time is mapped to the master's by software.
    Irig = 6,        // IRIG time code.
    Pps = 12,        // One pulse per second, no time of day.
    Ptp = 14         // IEEE 1588.
};

}  // namespace Harvane::RT::Modules::Daq
