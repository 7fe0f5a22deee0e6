#pragma once

#include <memory>

#include "libraries/devices/embedded/RegisterDevice.h"
#include "libraries/devices/embedded/RegisterValue.h"

namespace Harvane::Shared::Kestrix {

using ZornLib::Devices::Embedded::IRegisterAccess;
using ZornLib::Devices::Embedded::RegisterDevice;
using ZornLib::Devices::Embedded::RegisterValue;

// What the register maps have in common: the short names that their tables use.
template <typename T>
class RegisterBlock : public RegisterDevice<T> {
protected:
    using u8 = unsigned char;
    using u16 = unsigned short;
    using u32 = unsigned int;
    using u64 = unsigned long;
    using i64 = long;
    static constexpr bool R = true;  // read only
    static constexpr bool RW = false;

    using RegisterDevice<T>::RegisterDevice;
    ~RegisterBlock() = default;
};

// The FPGA's blocks: 32-bit words whose bytes are swapped, so that `bit` is 31 minus the bit of the hardware word.
using FpgaRegisterDevice = RegisterBlock<unsigned int>;

extern template class RegisterBlock<unsigned char>;
extern template class RegisterBlock<unsigned short>;
extern template class RegisterBlock<unsigned int>;

}  // namespace Harvane::Shared::Kestrix

// One row of a register map: the field of that name as a public member of the block.
#define KESTRIX_REGISTER(name, offset, bit, bits, type, access) \
    RegisterValue<type> name {                                  \
        this, offset, bit, bits, #name, access                  \
    }
