#pragma once

namespace Harvane::RT::Modules::Daq {

// The name of the driver, of its factory and of the module.
inline constexpr char DriverName[] = "Harvane Daq Module";

}  // namespace Harvane::RT::Modules::Daq
