#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

#include "libraries/utils/DeviceFile.h"

namespace Harvane::ZornLib::Devices::Embedded {

// The open device of a register access. Throws std::runtime_error "Failed to open device handle." around the
// std::system_error that names path and reason.
inline Utils::DeviceFile openDeviceHandle(const std::string& path, int flags) {
    try {
        return Utils::openDevice(path, flags);
    } catch (const std::system_error&) {
        std::throw_with_nested(std::runtime_error("Failed to open device handle."));
    }
}

}  // namespace Harvane::ZornLib::Devices::Embedded
