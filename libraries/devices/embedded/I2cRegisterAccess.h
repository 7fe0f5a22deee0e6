#pragma once

#include "libraries/devices/embedded/FileRegisterAccess.h"

namespace Harvane::ZornLib::Devices::Embedded {

// Peripherals of a Linux I2C bus: the address is the slave, the low 8 bits of the offset the register in it.
class I2cRegisterAccess : public FileRegisterAccess {
public:
    explicit I2cRegisterAccess(const std::string& devicePath);

    // Throws "Failed to acquire bus access and/or talk to slave." when the slave can't be selected.
    void write(uint64_t slave, uint64_t registerNumber, const unsigned char* data, size_t size) override;
    void read(uint64_t slave, uint64_t registerNumber, unsigned char* data, size_t size) override;

    // Whether a peripheral answers a read of its register 0. Never throws.
    bool checkSlave(uint64_t slave) noexcept;

private:
    void checkAndSelectSlave(uint64_t slave);

    int64_t selectedSlave_ = -1;  // as the descriptor has it; -1 matches no slave
};

}  // namespace Harvane::ZornLib::Devices::Embedded
