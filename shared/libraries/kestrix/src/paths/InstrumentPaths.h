#pragma once

// Every node, file and script of the instrument that the module opens or runs, for it and for programs that look
// whether they are there.
namespace Harvane::Shared::Kestrix::InstrumentPaths {

// Character devices.
inline constexpr const char* memoryDevice = "/dev/mem";           // register blocks of the FPGA
inline constexpr const char* i2cDevice = "/dev/i2c-1";            // EEPROM, oscillator, multiplexer, sensors
inline constexpr const char* uartDevice = "/dev/ttyPS1";          // amplifiers
inline constexpr const char* timingDevice = "/dev/tolvn_timing";  // records of the reference's pulses
// One of each for a module; its number stands behind the name.
inline constexpr const char* rawStreamDevice = "/dev/tolvn_dma_r";
inline constexpr const char* filteredStreamDevice = "/dev/tolvn_dma_f";

// Switches of the timing driver; written only.
inline constexpr const char* irigInSwitch = "/sys/class/tolvn_korvel/tolvn_timing/irig_in_enabled";
inline constexpr const char* irigOutSwitch = "/sys/class/tolvn_korvel/tolvn_timing/irig_out_enabled";
inline constexpr const char* ptpCorrection = "/sys/class/tolvn_korvel/tolvn_timing/igb_ptp_update_correction_ns";

// The number of a line and "/value" stand behind it. The board's lines count from the base.
inline constexpr const char* gpioLine = "/sys/class/gpio/gpio";
inline constexpr int gpioBase = 496;
// Name of the LED and of the file stand behind it. The board's own folder where its file can be written, else the
// kernel's.
inline constexpr const char* boardLeds = "/board/leds/";
inline constexpr const char* kernelLeds = "/sys/class/leds/";
inline constexpr char statusLed[] = "led2";
inline constexpr char alarmLed[] = "alarm";

inline constexpr const char* ptpScript = "/opt/harvane/scripts/ptp_control.sh";    // role of the PTP daemon
inline constexpr const char* vcxoScript = "/opt/harvane/scripts/vcxo_control.sh";  // output of the oscillator
inline constexpr const char* networkAddress = "/sys/class/net/eth0/address";
inline constexpr const char* networkInterfaces = "/sys/class/net";  // those with "can" in their name are CAN ports

}  // namespace Harvane::Shared::Kestrix::InstrumentPaths
