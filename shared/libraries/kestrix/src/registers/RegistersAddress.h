#pragma once

#include <atomic>
#include <cstdint>

#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

// Board-wide values for those who know no device. Its identity fills the variables in one place before any part exists;
// baseClock is filled by the sampling clock alone.
namespace Harvane::Shared::Kestrix::RegistersAddress {

// Sampling base clock in force, Hz; the last one while none is known. Clocks ask for it on the host's threads.
inline std::atomic<int64_t> baseClock{15000000};
inline unsigned char maxAIModules = 8;  // amplifier slots as the EEPROM has them: can exceed what the hardware has
inline unsigned char maxAIChannels = 16;
inline unsigned char deviceType = 0;  // 0 the 8-channel board, 1 the 2-channel board

inline constexpr const char* i2cDeviceFileName = InstrumentPaths::i2cDevice;
inline constexpr const char* uartDeviceFileName = InstrumentPaths::uartDevice;
inline constexpr const char* timingInteruptFile = InstrumentPaths::timingDevice;
inline constexpr const char* memoryDeviceFileName = InstrumentPaths::memoryDevice;

inline constexpr const char* fpgaTemperatureHW = "/sys/class/hwmon/hwmon1/temp1_input";
inline constexpr const char* ip1TemperatureHW = "/sys/class/hwmon/hwmon0/temp1_input";
inline constexpr const char* xlnxPsMainTemperatureHW = "/sys/class/hwmon/hwmon2/temp1_input";
inline constexpr const char* xlnxPsRemoteTemperatureHW = "/sys/class/hwmon/hwmon2/temp2_input";
inline constexpr const char* xlnxPlTemperatureHW = "/sys/class/hwmon/hwmon2/temp3_input";
inline constexpr const char* xlnxPsMainTemperature = "/sys/bus/iio/devices/iio:device0/in_temp0_ps_temp_raw";
inline constexpr const char* xlnxPsRemoteTemperature = "/sys/bus/iio/devices/iio:device0/in_temp1_remote_temp_raw";
inline constexpr const char* xlnxPlTemperature = "/sys/bus/iio/devices/iio:device0/in_temp2_pl_temp_raw";
inline constexpr const char* ain1SingleRaw = "/sys/bus/iio/devices/iio:device1/in_voltage1_raw";
inline constexpr const char* ain0Ain1DiffRaw = "/sys/bus/iio/devices/iio:device1/in_voltage0-voltage1_raw";

// Physical addresses of the FPGA's blocks.
inline constexpr uint64_t adcControlBaseAddress = 0xA0200000;
inline constexpr uint64_t timingCoreBaseAddress = 0xA3000000;
inline constexpr uint64_t irigCoreBaseAddress = 0xA3800000;
inline constexpr uint64_t globalControlBaseAddress = 0xA6000000;
inline constexpr uint64_t pllControlBaseAddress = 0xB0000000;

// Filter and DSP core of one module. The FPGA has eight of them: a higher number would reach other blocks.
constexpr uint64_t dspBaseAddress(unsigned int module) {
    return 0xA0000000 + (static_cast<uint64_t>(module) << 16);
}

// I2C slaves of the board.
inline constexpr uint64_t eepromSlaveAddress = 0x50;
inline constexpr uint64_t vcxoDriverSlaveAddress = 0x58;

}  // namespace Harvane::Shared::Kestrix::RegistersAddress
