#pragma once

namespace Harvane::RT::Modules::Daq {

// How the samples of a channel stand in time.
enum class SampleType : int {
    Sync = 0,        // A fixed rate derived from the device's.
    Async = 1,       // Each sample has its own time.
    SingleValue = 2  // Rate 1.
};

}  // namespace Harvane::RT::Modules::Daq
