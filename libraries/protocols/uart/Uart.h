#pragma once

#include <cstddef>
#include <string>

#include "libraries/utils/DeviceFile.h"

namespace Harvane::ZornLib::Protocols::Uart {

// A serial port in raw mode: 8 data bits, no parity, one stop bit, no flow control. Failures are std::runtime_error.
// Not thread-safe: callers take turns.
class Uart {
public:
    // `baudRate` is a termios speed constant such as B38400, `timeout` the longest wait of a read in milliseconds, of
    // which the port keeps whole tenths of a second, 255 at most. Opens nothing.
    Uart(std::string deviceFileName, unsigned int baudRate, unsigned int timeout);

    // Throws "Cannot open file\n" around the std::system_error that names path and reason.
    void openDeviceFile();
    // Sets the port up from baud rate and timeout.
    void initialize();
    // Drops what was received and not read, and what was written and not sent.
    void clear();

    // One transfer; returns the number of bytes moved. A read without data gives 0 after the timeout.
    size_t writeData(const unsigned char* data, size_t size);
    size_t readData(unsigned char* data, size_t size);

    // Descriptor 0 is never closed.
    void closeDeviceFile();

    // Changes take effect at the next initialize, the file name at the next openDeviceFile.
    void setBaudRate(unsigned int baudRate);
    unsigned int getBaudRate() const;
    void setTimeout(unsigned int timeout);
    unsigned int getTimeout() const;
    void setDeviceFileName(const std::string& deviceFileName);
    const std::string& getDeviceFileName() const;

private:
    std::string deviceFileName_;
    unsigned int timeout_;
    unsigned int baudRate_;
    Utils::DeviceFile file_;
};

}  // namespace Harvane::ZornLib::Protocols::Uart
