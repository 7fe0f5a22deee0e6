#pragma once

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// TMP100 temperature sensor on the I2C bus. Both flags are set by its users, so that a register goes over the bus in
// words of its value type. Config is not read by this system: a read takes a whole 16-bit word from the bus.
class Tmp100Register final : public RegisterBlock<unsigned short> {
public:
    Tmp100Register(std::shared_ptr<IRegisterAccess> access, uint64_t slaveAddress, bool endianness,
                   bool isRegisterValueType);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(Temp,             0x00,    0, 16, u16,  R);
    KESTRIX_REGISTER(Config,           0x01,    0,  8, u8,   RW);
    // clang-format on

    // Degrees Celsius in steps of 0.0625.
    float getTemperature() const;
};

}  // namespace Harvane::Shared::Kestrix
