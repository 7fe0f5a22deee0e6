#pragma once

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// FPGA version and supply of the amplifier modules. ENI, PSI and PLI set the supply up; EI is the enable byte that is
// stepped up to 255 to switch it on and cleared to switch it off. 32-bit words behind 0xA6000000.
class GlobalControlRegister final : public FpgaRegisterDevice {
public:
    GlobalControlRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(VER,              0x0000,  0, 32, u32,  R);
    KESTRIX_REGISTER(ENI,              0x0004, 31,  1, bool, RW);
    KESTRIX_REGISTER(ENRES,            0x0004,  0, 31, u32,  R);
    KESTRIX_REGISTER(PSI,              0x0008, 26,  6, u8,   RW);
    KESTRIX_REGISTER(PSRES,            0x0008,  0, 26, u32,  R);
    KESTRIX_REGISTER(PLI,              0x000c, 26,  6, u8,   RW);
    KESTRIX_REGISTER(PLRES,            0x000c,  0, 26, u32,  R);
    KESTRIX_REGISTER(EI,               0x0010, 24,  8, u8,   RW);
    KESTRIX_REGISTER(ERES,             0x0010,  0, 24, u32,  R);
    // clang-format on
};

}  // namespace Harvane::Shared::Kestrix
