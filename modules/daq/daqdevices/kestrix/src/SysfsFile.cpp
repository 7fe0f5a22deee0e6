#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <system_error>

#include "libraries/utils/DeviceFile.h"

namespace Harvane::RT::Modules::Daq::Platform {

using Utils::DeviceFile;
using Utils::openDevice;

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

size_t writeSysfs(const std::string& path, std::string_view bytes) {
    // The kernel takes each write as the whole value; O_TRUNC makes it so where a plain file stands in.
    const DeviceFile file = openDevice(path, O_WRONLY | O_TRUNC);
    const ssize_t written = write(file.get(), bytes.data(), bytes.size());
    if (written < 0) {
        fail(path);
    }
    return static_cast<size_t>(written);
}

std::string readSysfs(const std::string& path, size_t maxSize) {
    const DeviceFile file = openDevice(path, O_RDONLY);
    std::string bytes(maxSize, '\0');
    const ssize_t count = read(file.get(), bytes.data(), bytes.size());
    if (count < 0) {
        fail(path);
    }
    bytes.resize(static_cast<size_t>(count));
    return bytes;
}

}  // namespace Harvane::RT::Modules::Daq::Platform
