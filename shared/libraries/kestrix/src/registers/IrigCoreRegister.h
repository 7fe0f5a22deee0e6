#pragma once

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// IRIG encoder and decoder. The words 0x0004 and 0x0008 hold the time to send, 0x0024 and 0x0028 the time received: day
// of the year, hours, minutes, seconds and year in BCD digits. 32-bit words behind 0xA3800000.
class IrigCoreRegister final : public FpgaRegisterDevice {
public:
    IrigCoreRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(CONFPPSRES,       0x0000,  0, 24, u32,  R);
    KESTRIX_REGISTER(PPSREFSEL,        0x0000, 24,  2, u8,   RW);
    KESTRIX_REGISTER(CONFRES,          0x0000, 26,  1, bool, R);
    KESTRIX_REGISTER(PPSSYNC,          0x0000, 27,  1, bool, RW);
    KESTRIX_REGISTER(OUTRESET,         0x0000, 28,  1, bool, RW);
    KESTRIX_REGISTER(IRIGTYP,          0x0000, 29,  2, u8,   RW);
    KESTRIX_REGISTER(DCMODE,           0x0000, 31,  1, bool, RW);
    KESTRIX_REGISTER(OUTRESERVED,      0x0004,  0,  2, u8,   R);
    KESTRIX_REGISTER(DAYSHUNOUT,       0x0004,  2,  2, u8,   RW);
    KESTRIX_REGISTER(DAYSTENSOUT,      0x0004,  4,  4, u8,   RW);
    KESTRIX_REGISTER(DAYSONESOUT,      0x0004,  8,  4, u8,   RW);
    KESTRIX_REGISTER(HTENSOUT,         0x0004, 12,  2, u8,   RW);
    KESTRIX_REGISTER(HONESOUT,         0x0004, 14,  4, u8,   RW);
    KESTRIX_REGISTER(MINTENSOUT,       0x0004, 18,  3, u8,   RW);
    KESTRIX_REGISTER(MINONESOUT,       0x0004, 21,  4, u8,   RW);
    KESTRIX_REGISTER(SECTENSOUT,       0x0004, 25,  3, u8,   RW);
    KESTRIX_REGISTER(SECONESOUT,       0x0004, 28,  4, u8,   RW);
    KESTRIX_REGISTER(OUT1RES,          0x0008,  0, 24, u32,  R);
    KESTRIX_REGISTER(YEARSTENSOUT,     0x0008, 24,  4, u8,   RW);
    KESTRIX_REGISTER(YEARSONESOUT,     0x0008, 28,  4, u8,   RW);
    KESTRIX_REGISTER(MILLISECCNT,      0x0020,  0, 16, u16,  R);
    KESTRIX_REGISTER(IRIGSTATRES,      0x0020, 16, 11, u16,  R);
    KESTRIX_REGISTER(PPSDECODED,       0x0020, 27,  1, bool, R);
    KESTRIX_REGISTER(DATAVAL,          0x0020, 28,  1, bool, R);
    KESTRIX_REGISTER(STATUSRES,        0x0020, 29,  3, u8,   R);
    KESTRIX_REGISTER(INRESERVED,       0x0024,  0,  2, u8,   R);
    KESTRIX_REGISTER(DAYSHUNIN,        0x0024,  2,  2, u8,   R);
    KESTRIX_REGISTER(DAYSTENSIN,       0x0024,  4,  4, u8,   R);
    KESTRIX_REGISTER(DAYSONESIN,       0x0024,  8,  4, u8,   R);
    KESTRIX_REGISTER(HTENSIN,          0x0024, 12,  2, u8,   R);
    KESTRIX_REGISTER(HONESIN,          0x0024, 14,  4, u8,   R);
    KESTRIX_REGISTER(MINTENSIN,        0x0024, 18,  3, u8,   R);
    KESTRIX_REGISTER(MINONESIN,        0x0024, 21,  4, u8,   R);
    KESTRIX_REGISTER(SECTENSIN,        0x0024, 25,  3, u8,   R);
    KESTRIX_REGISTER(SECONESIN,        0x0024, 28,  4, u8,   R);
    KESTRIX_REGISTER(IN1RES,           0x0028,  0, 24, u32,  R);
    KESTRIX_REGISTER(YEARSTENSIN,      0x0028, 24,  4, u8,   R);
    KESTRIX_REGISTER(YEARSONESIN,      0x0028, 28,  4, u8,   R);
    // clang-format on
};

}  // namespace Harvane::Shared::Kestrix
