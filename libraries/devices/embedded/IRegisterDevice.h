#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "libraries/devices/embedded/IRegisterValue.h"

namespace Harvane::ZornLib::Devices::Embedded {

// A block of registers behind one base address, whatever its word type.
class IRegisterDevice {
public:
    virtual void setEndianness(bool endianness) = 0;
    virtual bool getEndianness() const = 0;
    // True: a field goes over the bus in words of its value type; false: in words of the block's type.
    virtual bool getIsRegisterValueType() const = 0;
    // Bytes of the block's word type.
    virtual size_t getBaseTypeSize() const = 0;
    virtual uint64_t getBaseAddress() const = 0;
    // Every field in the order of construction; a field adds itself.
    virtual std::vector<IRegisterValue*>& getRegisters() = 0;
    // The first field that shares a bit with the range, or null.
    virtual IRegisterValue* FindRegisterValueInRange(uint64_t address, uint64_t bit, uint64_t bits) const = 0;
    // One bus word. write may leave the bytes of `data` swapped.
    virtual void write(uint64_t offset, unsigned char* data, size_t size) = 0;
    virtual void read(uint64_t offset, unsigned char* data, size_t size) = 0;
    // Reads every field.
    virtual std::string toString() const = 0;

protected:
    ~IRegisterDevice() = default;
};

}  // namespace Harvane::ZornLib::Devices::Embedded
