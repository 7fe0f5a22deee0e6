#include "shared/libraries/kestrix/src/registers/Tmp100Register.h"

#include <utility>

namespace Harvane::Shared::Kestrix {

Tmp100Register::Tmp100Register(std::shared_ptr<IRegisterAccess> access, uint64_t slaveAddress, bool endianness,
                               bool isRegisterValueType)
    : RegisterBlock(slaveAddress, endianness, isRegisterValueType, std::move(access)) {}

float Tmp100Register::getTemperature() const {
    // The sensor sends its high byte first; the block has swapped the two bytes.
    const unsigned int swapped = Temp.read();
    const unsigned int word = ((swapped & 0xFF) << 8) | (swapped >> 8);
    float temperature = static_cast<float>(word >> 4) * 0.0625f;
    // 12 bits in two's complement: above the positive range the sensor means a negative temperature.
    if (temperature > 128.0f) {
        temperature -= 256.0f;
    }
    return temperature;
}

}  // namespace Harvane::Shared::Kestrix
