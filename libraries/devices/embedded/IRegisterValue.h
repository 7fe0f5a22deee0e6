#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Harvane::ZornLib::Devices::Embedded {

// One bit field of a block, whatever its value type. Owned by the block's class as a member.
class IRegisterValue {
public:
    virtual const std::string& getName() const = 0;
    // Offset from the block's base address.
    virtual uint64_t getAddress() const = 0;
    // First bit, counted from the most significant bit of the first byte.
    virtual uint64_t getBit() const = 0;
    virtual uint64_t getBits() const = 0;
    // sizeof of the value type.
    virtual size_t getValueTypeSize() const = 0;
    virtual bool getReadOnly() const = 0;
    // Reads the field.
    virtual std::string toString() const = 0;
    // Writes 0.
    virtual void reset() = 0;

protected:
    ~IRegisterValue() = default;
};

}  // namespace Harvane::ZornLib::Devices::Embedded
