#include "libraries/utils/DeviceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Harvane::Utils {

DeviceFile& DeviceFile::operator=(DeviceFile&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

bool DeviceFile::close() noexcept {
    const int fd = std::exchange(fd_, -1);
    return fd <= 0 || ::close(fd) == 0;
}

DeviceFile openDevice(const std::string& path, int flags) {
    DeviceFile file(::open(path.c_str(), flags | O_CLOEXEC));
    if (!file.isOpen()) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return file;
}

}  // namespace Harvane::Utils
