#include "libraries/protocols/uart/Uart.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Harvane::ZornLib::Protocols::Uart {

Uart::Uart(std::string deviceFileName, unsigned int baudRate, unsigned int timeout)
    : deviceFileName_(std::move(deviceFileName)), timeout_(timeout), baudRate_(baudRate) {}

Uart::~Uart() {
    try {
        closeDeviceFile();
    } catch (const std::runtime_error&) {
        // The descriptor is gone either way.
    }
}

void Uart::openDeviceFile() {
    closeDeviceFile();
    fd_ = ::open(deviceFileName_.c_str(), O_RDWR);
    if (fd_ < 0) {
        throw std::runtime_error("Cannot open file\n");
    }
}

void Uart::initialize() {
    termios settings{};
    if (::tcgetattr(fd_, &settings) != 0) {
        throw std::runtime_error("Error: tcgetattr() failed.\n");
    }

    settings.c_iflag &=
        ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF);
    settings.c_oflag &= ~static_cast<tcflag_t>(OPOST | ONLCR);
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CRTSCTS);
    settings.c_cflag |= CS8 | CREAD | CLOCAL;
    settings.c_lflag &= ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHONL);
    // A read returns with what has arrived, at the latest after VTIME tenths of a second.
    settings.c_cc[VTIME] = static_cast<cc_t>(std::min(timeout_ / 100, 255u));
    settings.c_cc[VMIN] = 0;

    ::tcflush(fd_, TCIOFLUSH);
    ::cfsetispeed(&settings, baudRate_);
    ::cfsetospeed(&settings, baudRate_);
    if (::tcsetattr(fd_, TCSANOW, &settings) != 0) {
        throw std::runtime_error("Error: tcsetattr() failed.\n");
    }
}

void Uart::clear() {
    ::tcflush(fd_, TCIOFLUSH);
}

size_t Uart::writeData(const unsigned char* data, size_t size) {
    const ssize_t count = ::write(fd_, data, size);
    if (count < 0) {
        throw std::runtime_error("Error: write() failed.\n");
    }
    return static_cast<size_t>(count);
}

size_t Uart::readData(unsigned char* data, size_t size) {
    const ssize_t count = ::read(fd_, data, size);
    if (count < 0) {
        throw std::runtime_error("Error: read() failed.\n");
    }
    return static_cast<size_t>(count);
}

void Uart::closeDeviceFile() {
    if (fd_ <= 0) {
        return;
    }
    if (::close(std::exchange(fd_, -1)) != 0) {
        throw std::runtime_error("Error: close file failed.\n");
    }
}

void Uart::setBaudRate(unsigned int baudRate) {
    baudRate_ = baudRate;
}

unsigned int Uart::getBaudRate() const {
    return baudRate_;
}

void Uart::setTimeout(unsigned int timeout) {
    timeout_ = timeout;
}

unsigned int Uart::getTimeout() const {
    return timeout_;
}

void Uart::setDeviceFileName(const std::string& deviceFileName) {
    deviceFileName_ = deviceFileName;
}

const std::string& Uart::getDeviceFileName() const {
    return deviceFileName_;
}

}  // namespace Harvane::ZornLib::Protocols::Uart
