#include "libraries/devices/embedded/FileRegisterAccess.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

namespace Harvane::ZornLib::Devices::Embedded {

namespace {

// A failed call counts as a count of its own: -1 shows as the largest unsigned number.
void requireCount(ssize_t count, size_t size, const char* text) {
    if (count < 0 || static_cast<size_t>(count) != size) {
        throw std::runtime_error(text + std::to_string(static_cast<unsigned long>(count)) + ").");
    }
}

}  // namespace

FileRegisterAccess::FileRegisterAccess(const std::string& devicePath) : fd_(::open(devicePath.c_str(), O_RDWR)) {
    if (fd_ < 0) {
        throw std::runtime_error("Failed to open device handle.");
    }
}

FileRegisterAccess::~FileRegisterAccess() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void FileRegisterAccess::write(uint64_t, uint64_t, const unsigned char* data, size_t size) {
    const std::lock_guard lock(sync_);
    if (fd_ < 0) {
        throw std::runtime_error("File is not opened.");
    }
    requireCount(::write(fd_, data, size), size, "Failed to write to the file (");
}

void FileRegisterAccess::read(uint64_t, uint64_t, unsigned char* data, size_t size) {
    const std::lock_guard lock(sync_);
    if (fd_ < 0) {
        throw std::runtime_error("File is not opened.");
    }
    requireCount(::read(fd_, data, size), size, "Failed to read from the file(");
}

std::recursive_mutex& FileRegisterAccess::getSync() {
    return sync_;
}

int FileRegisterAccess::getFileDescriptor() const {
    return fd_;
}

}  // namespace Harvane::ZornLib::Devices::Embedded
