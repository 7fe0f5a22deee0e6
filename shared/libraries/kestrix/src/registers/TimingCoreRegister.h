#pragma once

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// Timing core: reference selection, dividers, phase detector, frequency counter, acquisition start and the free-running
// counters. Phase and frequency are counts of the 150 MHz clock, CLKCNT those of the sampling base clock. 32-bit words
// behind 0xA3000000; the word at 0x0034 has no field.
class TimingCoreRegister final : public FpgaRegisterDevice {
public:
    TimingCoreRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(PPSSEL,           0x0000, 29,  3, u8,   RW);
    KESTRIX_REGISTER(PPSRES,           0x0000, 28,  1, bool, R);
    KESTRIX_REGISTER(TRIGSEL,          0x0000, 26,  2, u8,   RW);
    KESTRIX_REGISTER(TRIGRES,          0x0000, 24,  2, u8,   R);
    KESTRIX_REGISTER(MSTSLV,           0x0000, 23,  1, bool, RW);
    KESTRIX_REGISTER(MSTSLVRES,        0x0000, 20,  3, u8,   R);
    KESTRIX_REGISTER(TMODE,            0x0000, 18,  2, u8,   RW);
    KESTRIX_REGISTER(CORES,            0x0000, 16,  2, u8,   R);
    KESTRIX_REGISTER(SYNCD,            0x0000, 15,  1, bool, RW);
    KESTRIX_REGISTER(PPSD,             0x0000, 14,  1, bool, RW);
    KESTRIX_REGISTER(CPRES,            0x0000,  0, 14, u16,  R);
    KESTRIX_REGISTER(DIVA,             0x0004,  0, 32, u32,  RW);
    KESTRIX_REGISTER(DIVC,             0x0008,  0, 32, u32,  RW);
    KESTRIX_REGISTER(DPPLRST,          0x000c, 31,  1, bool, RW);
    KESTRIX_REGISTER(DPPLRSTRES,       0x000c,  0, 31, u32,  R);
    KESTRIX_REGISTER(PDREG,            0x0010,  4, 28, u32,  R);
    KESTRIX_REGISTER(PDRES,            0x0010,  1,  3, u8,   R);
    KESTRIX_REGISTER(ELFLAG,           0x0010,  0,  1, bool, R);
    KESTRIX_REGISTER(FQREG,            0x0014,  3, 29, u32,  R);
    KESTRIX_REGISTER(SYNCPPS,          0x0014,  2,  1, bool, RW);
    KESTRIX_REGISTER(FQRES,            0x0014,  1,  1, bool, R);
    KESTRIX_REGISTER(LOSS,             0x0014,  0,  1, bool, R);
    KESTRIX_REGISTER(STRTACQ,          0x0018, 31,  1, bool, RW);
    KESTRIX_REGISTER(STRTACQRES,       0x0018,  0, 31, u32,  R);
    KESTRIX_REGISTER(CNTRST,           0x001c, 31,  1, bool, RW);
    KESTRIX_REGISTER(CNTRSTRES,        0x001c,  0, 31, u32,  R);
    KESTRIX_REGISTER(CLKCNT,           0x0020,  0, 32, u32,  R);
    KESTRIX_REGISTER(PDMASK,           0x0024, 31,  1, bool, RW);
    KESTRIX_REGISTER(FQMASK,           0x0024, 30,  1, bool, RW);
    KESTRIX_REGISTER(INTMASKRES,       0x0024,  0, 30, u32,  R);
    KESTRIX_REGISTER(DIVRES,           0x0028,  0, 32, u32,  RW);
    KESTRIX_REGISTER(INVCLCKIN,        0x002c, 31,  1, bool, RW);
    KESTRIX_REGISTER(INVTRIGIN,        0x002c, 30,  1, bool, RW);
    KESTRIX_REGISTER(INVPPSIN,         0x002c, 29,  1, bool, RW);
    KESTRIX_REGISTER(INVPTPIN,         0x002c, 28,  1, bool, RW);
    KESTRIX_REGISTER(INVECATIN,        0x002c, 27,  1, bool, RW);
    KESTRIX_REGISTER(DIVBCNT,          0x0030,  0, 32, u32,  R);
    KESTRIX_REGISTER(PPSDEB,           0x0038, 31,  1, bool, RW);
    KESTRIX_REGISTER(PPSDEBRES,        0x0038,  0, 31, u32,  RW);
    KESTRIX_REGISTER(FREERUNSCNTLTCH,  0x003c,  0, 32, u32,  RW);
    KESTRIX_REGISTER(FREERUNNSCNTLTCH, 0x0040,  0, 32, u32,  RW);
    KESTRIX_REGISTER(FREERUNSCNT,      0x0044,  0, 32, u32,  RW);
    KESTRIX_REGISTER(FREERUNNSCNT,     0x0048,  0, 32, u32,  RW);
    // clang-format on
};

}  // namespace Harvane::Shared::Kestrix
