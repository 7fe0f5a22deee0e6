#pragma once

#include <array>

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// Enable of the ADC interfaces, start trigger (TMAN for a standalone start, TMASK otherwise, one bit a module) and the
// debug counters that replace the ADCs in simulation. 32-bit words behind 0xA0200000.
class AdcControlRegister final : public FpgaRegisterDevice {
public:
    AdcControlRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(ADCEN,            0x0000, 31,  1, bool, RW);
    KESTRIX_REGISTER(ADCENRES,         0x0000,  0, 31, u32,  R);
    KESTRIX_REGISTER(TMAN,             0x0004, 24,  8, u8,   RW);
    KESTRIX_REGISTER(TMASK,            0x0004, 16,  8, u8,   RW);
    KESTRIX_REGISTER(TSTAT,            0x0004,  8,  8, u8,   RW);
    KESTRIX_REGISTER(TRES,             0x0004,  0,  8, u8,   R);
    KESTRIX_REGISTER(SRDIV,            0x0008,  0, 32, u32,  RW);
    KESTRIX_REGISTER(LTCHM,            0x000c, 31,  1, bool, RW);
    KESTRIX_REGISTER(LTCHMRES,         0x000c,  0, 31, u32,  R);
    KESTRIX_REGISTER(LTCHPEN,          0x0010, 31,  1, bool, RW);
    KESTRIX_REGISTER(LTCHPENRES,       0x0030,  0, 31, u32,  R);
    KESTRIX_REGISTER(LTCHP,            0x0014, 31,  1, bool, RW);
    KESTRIX_REGISTER(LTCHPRES,         0x0034,  0, 31, u32,  R);
    KESTRIX_REGISTER(CURRCNTVAL,       0x0078, 16, 16, u16,  R);
    KESTRIX_REGISTER(CNTCTRL,          0x0078, 15,  1, bool, RW);
    KESTRIX_REGISTER(RESCNTTO0,        0x0078, 14,  1, bool, RW);
    KESTRIX_REGISTER(DBGCNTINRES,      0x0078,  8,  6, u8,   R);
    KESTRIX_REGISTER(ENDBGCNT0,        0x0078,  7,  1, bool, RW);
    KESTRIX_REGISTER(ENDBGCNT1,        0x0078,  6,  1, bool, RW);
    KESTRIX_REGISTER(ENDBGCNT2,        0x0078,  5,  1, bool, RW);
    KESTRIX_REGISTER(ENDBGCNT3,        0x0078,  4,  1, bool, RW);
    KESTRIX_REGISTER(ENDBGCNT4,        0x0078,  3,  1, bool, RW);
    KESTRIX_REGISTER(ENDBGCNT5,        0x0078,  2,  1, bool, RW);
    KESTRIX_REGISTER(ENDBGCNT6,        0x0078,  1,  1, bool, RW);
    KESTRIX_REGISTER(ENDBGCNT7,        0x0078,  0,  1, bool, RW);
    // clang-format on

    // The debug counter enables by channel index.
    std::array<RegisterValue<bool>*, 8> ENDBGCNT{&ENDBGCNT0, &ENDBGCNT1, &ENDBGCNT2, &ENDBGCNT3,
                                                 &ENDBGCNT4, &ENDBGCNT5, &ENDBGCNT6, &ENDBGCNT7};

    // clang-format off
    KESTRIX_REGISTER(ADCCLKSHIFTRES,   0x007c,  0, 28, u32,  R);
    KESTRIX_REGISTER(ADCCLKSHIFT,      0x007c, 28,  4, u8,   RW);
    // clang-format on
};

}  // namespace Harvane::Shared::Kestrix
