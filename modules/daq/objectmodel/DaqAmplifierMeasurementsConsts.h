#pragma once

namespace Harvane::RT::Modules::Daq {

// Texts of the measurement modes that the scale arithmetic knows.
struct DaqAmplifierMeasurementsConsts {
    static constexpr const char* Bridge = "Bridge";
    static constexpr const char* Resistance = "Resistance";
    static constexpr const char* Current = "Current";
    static constexpr const char* Potentiometer = "Potentiometer";
};

}  // namespace Harvane::RT::Modules::Daq
