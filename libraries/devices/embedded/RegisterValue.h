#pragma once

#include "libraries/devices/embedded/IRegisterDevice.h"

namespace Harvane::ZornLib::Devices::Embedded {

// A named run of bits inside a block, with the value type T: bool, unsigned char, unsigned short, unsigned int,
// unsigned long or long. The value is right-aligned in T.
//
// `bit` counts from the most significant bit of the first byte. In the 32-bit FPGA blocks, whose bytes are swapped,
// that makes it 31 minus the bit of the hardware word. A field that covers several bus words takes them from
// consecutive addresses: address, address + 1 and so on.
//
// A write that doesn't cover whole words reads them first and so is not atomic: fields of one word are written by one
// thread, or under the access object's getSync. Bus failures pass through as std::runtime_error.
template <typename T>
class RegisterValue final : public IRegisterValue {
public:
    // Adds itself to the block. Throws std::runtime_error when the width doesn't fit T, when there is no block, or
    // when a field of the block already holds one of the bits.
    RegisterValue(IRegisterDevice* device, uint64_t address, uint64_t bit, uint64_t bits, std::string name,
                  bool readOnly);
    RegisterValue(const RegisterValue&) = delete;
    RegisterValue& operator=(const RegisterValue&) = delete;

    T read() const;
    // A value wider than the field is cut to its low bits. Throws "Read only register access".
    void write(T value);
    // True when the field is exactly one word of the size of T, so that nothing has to be masked.
    bool whole() const;

    const std::string& getName() const override;
    uint64_t getAddress() const override;
    uint64_t getBit() const override;
    uint64_t getBits() const override;
    size_t getValueTypeSize() const override;
    bool getReadOnly() const override;
    std::string toString() const override;
    void reset() override;

private:
    IRegisterDevice* device_;
    std::string name_;
    uint64_t address_;
    uint64_t bit_;
    uint64_t bits_;
    bool readOnly_;
};

extern template class RegisterValue<bool>;
extern template class RegisterValue<unsigned char>;
extern template class RegisterValue<unsigned short>;
extern template class RegisterValue<unsigned int>;
extern template class RegisterValue<unsigned long>;
extern template class RegisterValue<long>;

}  // namespace Harvane::ZornLib::Devices::Embedded
