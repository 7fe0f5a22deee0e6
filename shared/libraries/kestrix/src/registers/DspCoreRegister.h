#pragma once

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// DSP chain of one module: decimation of the raw stream (RSD), resampling ratio of the filtered stream as a 38-bit
// fraction (RSPLO, RSPHI) and its half-band stages (HBNUM), enables and the clear handshake (CLREN, CLRST). 32-bit
// words from offset 0x0100 of the module's block, see RegistersAddress::dspBaseAddress.
class DspCoreRegister final : public FpgaRegisterDevice {
public:
    DspCoreRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(RSPLO,            0x0100,  0, 32, u32,  RW);
    KESTRIX_REGISTER(RSPHI,            0x0104, 26,  6, u8,   RW);
    KESTRIX_REGISTER(RSPHIRES,         0x0104,  0, 26, u32,  R);
    KESTRIX_REGISTER(HBNUM,            0x0108, 27,  5, u8,   RW);
    KESTRIX_REGISTER(HBNUMRES,         0x0108,  0, 27, u32,  R);
    KESTRIX_REGISTER(RSD,              0x010c,  0, 32, u32,  RW);
    KESTRIX_REGISTER(LSTFS,            0x0110,  0, 32, u32,  RW);
    KESTRIX_REGISTER(LSTRS,            0x0114,  0, 32, u32,  RW);
    KESTRIX_REGISTER(IFNST,            0x0118, 31,  1, bool, RW);
    KESTRIX_REGISTER(IFPST,            0x0118, 30,  1, bool, RW);
    KESTRIX_REGISTER(HBNST,            0x0118, 29,  1, bool, RW);
    KESTRIX_REGISTER(HBPST,            0x0118, 28,  1, bool, RW);
    KESTRIX_REGISTER(FC0NST,           0x0118, 27,  1, bool, RW);
    KESTRIX_REGISTER(FC0PST,           0x0118, 26,  1, bool, RW);
    KESTRIX_REGISTER(FC1NST,           0x0118, 25,  1, bool, RW);
    KESTRIX_REGISTER(FC1PST,           0x0118, 24,  1, bool, RW);
    KESTRIX_REGISTER(FC2NST,           0x0118, 23,  1, bool, RW);
    KESTRIX_REGISTER(FC2PST,           0x0118, 22,  1, bool, RW);
    KESTRIX_REGISTER(FONST,            0x0118, 21,  1, bool, RW);
    KESTRIX_REGISTER(FOPST,            0x0118, 20,  1, bool, RW);
    KESTRIX_REGISTER(LBNST,            0x0118, 19,  1, bool, RW);
    KESTRIX_REGISTER(LBPST,            0x0118, 18,  1, bool, RW);
    KESTRIX_REGISTER(CSRES,            0x0118,  0, 18, u32,  R);
    KESTRIX_REGISTER(DSPIRQ,           0x011c, 31,  1, bool, RW);
    KESTRIX_REGISTER(DSPIRQMRW,        0x011c, 30,  1, bool, RW);
    KESTRIX_REGISTER(LIRQ,             0x011c, 29,  1, bool, RW);
    KESTRIX_REGISTER(LIRQM,            0x011c, 28,  1, bool, RW);
    KESTRIX_REGISTER(IRQRES,           0x011c,  0, 28, u32,  R);
    KESTRIX_REGISTER(CLREN,            0x0120, 31,  1, bool, RW);
    KESTRIX_REGISTER(CLRST,            0x0120, 30,  1, bool, RW);
    KESTRIX_REGISTER(CLRRES,           0x0120,  0, 30, u32,  R);
    KESTRIX_REGISTER(FILTEN,           0x0124, 31,  1, bool, RW);
    KESTRIX_REGISTER(RAWEN,            0x0124, 30,  1, bool, RW);
    KESTRIX_REGISTER(DSPRES,           0x0124,  0, 30, u32,  R);
    KESTRIX_REGISTER(LTCFM,            0x0128, 31,  1, bool, RW);
    KESTRIX_REGISTER(LTCFP,            0x0128, 30,  1, bool, RW);
    KESTRIX_REGISTER(LTCRM,            0x0128, 29,  1, bool, RW);
    KESTRIX_REGISTER(LTCRP,            0x0128, 28,  1, bool, RW);
    KESTRIX_REGISTER(LTMRES,           0x0128,  0, 28, u32,  R);
    KESTRIX_REGISTER(SVAL,             0x012c, 16, 16, u16,  RW);
    KESTRIX_REGISTER(MODE,             0x012c, 14,  2, u8,   RW);
    KESTRIX_REGISTER(CNTRES,           0x012c,  2, 12, u16,  R);
    KESTRIX_REGISTER(CNT,              0x012c,  1,  1, bool, RW);
    KESTRIX_REGISTER(EN,               0x012c,  0,  1, bool, RW);
    KESTRIX_REGISTER(LEN,              0x0130,  0, 32, u32,  RW);
    // clang-format on
};

}  // namespace Harvane::Shared::Kestrix
