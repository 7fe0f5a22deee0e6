#pragma once

#include <string>
#include <utility>

namespace Harvane::Utils {

// Owns the descriptor of an open device node. Descriptor 0 is let go without being closed: it is the place of the
// standard input, which the next open of anybody would get.
class DeviceFile {
public:
    DeviceFile() = default;
    explicit DeviceFile(int fd) : fd_(fd) {}
    DeviceFile(DeviceFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    DeviceFile& operator=(DeviceFile&& other) noexcept;
    ~DeviceFile() { close(); }

    bool isOpen() const { return fd_ >= 0; }
    int get() const { return fd_; }  // -1: none
    // False when the system calls it a failure; the descriptor is gone either way.
    bool close() noexcept;

private:
    int fd_ = -1;
};

// Opens a device node. O_CLOEXEC is added to the flags: a script must not hold a memory or stream of the instrument,
// and a daemon that it starts would do so for days. Throws std::system_error with errno and "path: reason".
DeviceFile openDevice(const std::string& path, int flags);

}  // namespace Harvane::Utils
