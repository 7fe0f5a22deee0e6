#pragma once

#include <mutex>
#include <string>

#include "libraries/utils/DeviceFile.h"

namespace Harvane::Shared::Kestrix {

// Which multiplexer the board has; the values of RegistersAddress::deviceType.
enum class board_t : unsigned char {
    eightChannels = 0,
    twoChannels = 1,
};

// Connects the amplifiers' serial port to one module at a time, through 8-bit I2C devices that take a zero byte and a
// value and give the value back. One selection is guarded; the exchange that follows it is not.
class UartMux {
public:
    // Throws std::runtime_error with the text of errno when the bus can't be opened.
    UartMux(const char* deviceName, board_t board);

    // Runs the whole sequence, also for the channel already selected. Throws std::runtime_error with the text of errno
    // when the bus fails, or when no module can have that channel (0 to 7); std::logic_error when the multiplexer has
    // not taken the value in 32 tries.
    void selectChannel(int channel) const;

private:
    mutable std::mutex mutex_;
    std::string deviceName_;
    board_t board_;
    Utils::DeviceFile file_;
};

}  // namespace Harvane::Shared::Kestrix
