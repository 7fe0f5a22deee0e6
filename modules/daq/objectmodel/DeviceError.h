#pragma once

#include <string>

namespace Harvane::RT::Modules::Daq {

// A fault that the check of the hardware found.
class DeviceError {
public:
    explicit DeviceError(const std::string& text) : text(text) {}
    virtual ~DeviceError() = default;

    std::string text;
};

}  // namespace Harvane::RT::Modules::Daq
