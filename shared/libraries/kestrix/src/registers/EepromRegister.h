#pragma once

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// Identity EEPROM of the board, I2C slave 0x50. Numbers have their most significant byte at the lowest offset. The
// chip gets 10 ms after each byte written. The content is valid when Key is 0xFAF320 and Version is not 0.
//
// Version is the format, DeviceType 0 the 8-channel and 1 the 2-channel board, MaxAIModules the number of amplifier
// slots, CANPorts a bit mask, HardwareVersion four version bytes.
class EepromRegister final : public RegisterBlock<unsigned char> {
public:
    EepromRegister(std::shared_ptr<IRegisterAccess> access, uint64_t slaveAddress);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(Version,          0x000,  0,  8, u8,   RW);
    KESTRIX_REGISTER(Key,              0x001,  0, 24, u32,  RW);
    KESTRIX_REGISTER(SN,               0x004,  0, 64, u64,  RW);
    KESTRIX_REGISTER(DeviceType,       0x00c,  0,  8, u8,   RW);
    KESTRIX_REGISTER(MaxAIModules,     0x00d,  0,  8, u8,   RW);
    KESTRIX_REGISTER(CANPorts,         0x00e,  0, 16, u16,  RW);
    KESTRIX_REGISTER(SystemSN,         0x010,  0, 64, u64,  RW);
    KESTRIX_REGISTER(AdjustmentDate,   0x018,  0, 64, i64,  RW);
    KESTRIX_REGISTER(CalibrationDate,  0x020,  0, 64, i64,  RW);
    KESTRIX_REGISTER(HardwareVersion,  0x028,  0, 32, u32,  RW);
    KESTRIX_REGISTER(MAC,              0x0fa,  0, 48, u64,  R);
    // clang-format on
};

}  // namespace Harvane::Shared::Kestrix
