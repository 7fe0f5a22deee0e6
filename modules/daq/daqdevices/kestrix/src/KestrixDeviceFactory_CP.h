#pragma once

namespace Harvane::RT::Modules::Daq {

// Where the instrument is found.
struct KestrixDeviceFactory_CP {
    static constexpr const char* interfaceName = "FixedInterface";
    static constexpr const char* connectionPointName = "ID_10";
};

}  // namespace Harvane::RT::Modules::Daq
