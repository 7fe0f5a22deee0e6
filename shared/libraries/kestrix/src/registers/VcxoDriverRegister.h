#pragma once

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// LMK61E2 oscillator, I2C slave 0x58. Its 10-bit control word has bits 9..2 in R17_XO_BY0 and bits 1..0 in R16_XO_BY1.
class VcxoDriverRegister final : public RegisterBlock<unsigned char> {
public:
    VcxoDriverRegister(std::shared_ptr<IRegisterAccess> access, uint64_t slaveAddress, bool endianness);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(R16_X0_BY1RES,    0x10,    0,  6, u8,   RW);
    KESTRIX_REGISTER(R16_XO_BY1,       0x10,    6,  2, u8,   RW);
    KESTRIX_REGISTER(R17_XO_BY0,       0x11,    0,  8, u8,   RW);
    // clang-format on
};

}  // namespace Harvane::Shared::Kestrix
