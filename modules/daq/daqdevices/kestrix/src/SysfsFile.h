#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Harvane::RT::Modules::Daq::Platform {

// One open, one write, one close. Returns the number of bytes written.
// Throws std::system_error with errno and the path when the file can't be opened or written.
size_t writeSysfs(const std::string& path, std::string_view bytes);

// One open, one read of `maxSize` bytes at most, one close. Throws like writeSysfs.
std::string readSysfs(const std::string& path, size_t maxSize);

}  // namespace Harvane::RT::Modules::Daq::Platform
