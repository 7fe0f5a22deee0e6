#pragma once

#include <cstdint>

namespace Harvane::RT::Modules::Daq {

// Mode of the acquisition, from the host: 1 or 2. 0 stands until the host has said it and makes every enabled channel
// active.
using OperationMode = std::uint8_t;

}  // namespace Harvane::RT::Modules::Daq
