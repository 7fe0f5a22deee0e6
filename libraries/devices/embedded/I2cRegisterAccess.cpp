#include "libraries/devices/embedded/I2cRegisterAccess.h"

#include <linux/i2c-dev.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <stdexcept>

#include "libraries/devices/embedded/ByteBuffer.h"

namespace Harvane::ZornLib::Devices::Embedded {

I2cRegisterAccess::I2cRegisterAccess(const std::string& devicePath) : FileRegisterAccess(devicePath) {}

void I2cRegisterAccess::checkAndSelectSlave(uint64_t slave) {
    if (selectedSlave_ == static_cast<int64_t>(slave)) {
        return;
    }
    if (::ioctl(getFileDescriptor(), I2C_SLAVE, static_cast<unsigned long>(slave)) < 0) {
        throw std::runtime_error("Failed to acquire bus access and/or talk to slave.");
    }
    selectedSlave_ = static_cast<int64_t>(slave);
}

void I2cRegisterAccess::write(uint64_t slave, uint64_t registerNumber, const unsigned char* data, size_t size) {
    const std::lock_guard lock(getSync());
    checkAndSelectSlave(slave);
    ByteBuffer buffer(size + 1);
    buffer.data()[0] = static_cast<unsigned char>(registerNumber);
    std::copy_n(data, size, buffer.data() + 1);
    FileRegisterAccess::write(slave, registerNumber, buffer.data(), buffer.size());
}

void I2cRegisterAccess::read(uint64_t slave, uint64_t registerNumber, unsigned char* data, size_t size) {
    const std::lock_guard lock(getSync());
    checkAndSelectSlave(slave);
    const auto number = static_cast<unsigned char>(registerNumber);
    FileRegisterAccess::write(slave, registerNumber, &number, 1);
    FileRegisterAccess::read(slave, registerNumber, data, size);
}

bool I2cRegisterAccess::checkSlave(uint64_t slave) noexcept {
    try {
        unsigned char byte = 0;
        read(slave, 0, &byte, 1);
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace Harvane::ZornLib::Devices::Embedded
