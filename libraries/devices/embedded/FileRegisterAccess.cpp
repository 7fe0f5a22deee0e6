#include "libraries/devices/embedded/FileRegisterAccess.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "libraries/devices/embedded/DeviceHandle.h"

namespace Harvane::ZornLib::Devices::Embedded {

namespace {

// A failed call counts as a count of its own: -1 shows as the largest unsigned number.
void requireCount(ssize_t count, size_t size, const char* text) {
    if (count < 0 || static_cast<size_t>(count) != size) {
        throw std::runtime_error(text + std::to_string(static_cast<unsigned long>(count)) + ").");
    }
}

}  // namespace

FileRegisterAccess::FileRegisterAccess(const std::string& devicePath) : file_(openDeviceHandle(devicePath, O_RDWR)) {}

void FileRegisterAccess::write(uint64_t, uint64_t, const unsigned char* data, size_t size) {
    const std::lock_guard lock(sync_);
    if (!file_.isOpen()) {
        throw std::runtime_error("File is not opened.");
    }
    requireCount(::write(file_.get(), data, size), size, "Failed to write to the file (");
}

void FileRegisterAccess::read(uint64_t, uint64_t, unsigned char* data, size_t size) {
    const std::lock_guard lock(sync_);
    if (!file_.isOpen()) {
        throw std::runtime_error("File is not opened.");
    }
    requireCount(::read(file_.get(), data, size), size, "Failed to read from the file(");
}

std::recursive_mutex& FileRegisterAccess::getSync() {
    return sync_;
}

int FileRegisterAccess::getFileDescriptor() const {
    return file_.get();
}

}  // namespace Harvane::ZornLib::Devices::Embedded
