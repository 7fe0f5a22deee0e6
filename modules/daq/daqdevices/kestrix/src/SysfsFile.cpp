#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <system_error>

namespace Harvane::RT::Modules::Daq::Platform {

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

class SysfsFile {
public:
    SysfsFile(const std::string& path, int flags) : fd(open(path.c_str(), flags | O_CLOEXEC)) {
        if (fd < 0) {
            fail(path);
        }
    }
    ~SysfsFile() { close(fd); }
    SysfsFile(const SysfsFile&) = delete;
    SysfsFile& operator=(const SysfsFile&) = delete;

    const int fd;
};

}  // namespace

size_t writeSysfs(const std::string& path, std::string_view bytes) {
    // The kernel takes each write as the whole value; O_TRUNC makes it so where a plain file stands in.
    const SysfsFile file(path, O_WRONLY | O_TRUNC);
    const ssize_t written = write(file.fd, bytes.data(), bytes.size());
    if (written < 0) {
        fail(path);
    }
    return static_cast<size_t>(written);
}

std::string readSysfs(const std::string& path, size_t maxSize) {
    const SysfsFile file(path, O_RDONLY);
    std::string bytes(maxSize, '\0');
    const ssize_t count = read(file.fd, bytes.data(), bytes.size());
    if (count < 0) {
        fail(path);
    }
    bytes.resize(static_cast<size_t>(count));
    return bytes;
}

}  // namespace Harvane::RT::Modules::Daq::Platform
