#pragma once

namespace Harvane::RT::Modules::Daq {

// What a status channel tells. Name, sample type and range of each stand in StatusChannel.cpp.
enum class StatusChannelType : int {
    DeviceTime = 0,
    TimeLock = 1,
    PowerLost = 2,
    CpuTemperature = 3,
    BoardTemperature = 4,
    PhaseError = 5,
    VcxoValue = 6,
    CableDetect1 = 7,
    CableDetect2 = 8,
    CableTemperature = 9,
};

}  // namespace Harvane::RT::Modules::Daq
