#include "libraries/protocols/uart/Uart.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Harvane::ZornLib::Protocols::Uart {

Uart::Uart(std::string deviceFileName, unsigned int baudRate, unsigned int timeout)
    : deviceFileName_(std::move(deviceFileName)), timeout_(timeout), baudRate_(baudRate) {}

void Uart::openDeviceFile() {
    closeDeviceFile();
    try {
        // O_NOCTTY: a host without a terminal must not get the amplifiers' line as its own, with its signals.
        file_ = Utils::openDevice(deviceFileName_, O_RDWR | O_NOCTTY);
    } catch (const std::system_error&) {
        std::throw_with_nested(std::runtime_error("Cannot open file\n"));
    }
}

void Uart::initialize() {
    termios settings{};
    if (::tcgetattr(file_.get(), &settings) != 0) {
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

    ::tcflush(file_.get(), TCIOFLUSH);
    ::cfsetispeed(&settings, baudRate_);
    ::cfsetospeed(&settings, baudRate_);
    if (::tcsetattr(file_.get(), TCSANOW, &settings) != 0) {
        throw std::runtime_error("Error: tcsetattr() failed.\n");
    }
}

void Uart::clear() {
    ::tcflush(file_.get(), TCIOFLUSH);
}

size_t Uart::writeData(const unsigned char* data, size_t size) {
    const ssize_t count = ::write(file_.get(), data, size);
    if (count < 0) {
        throw std::runtime_error("Error: write() failed.\n");
    }
    return static_cast<size_t>(count);
}

size_t Uart::readData(unsigned char* data, size_t size) {
    const ssize_t count = ::read(file_.get(), data, size);
    if (count < 0) {
        throw std::runtime_error("Error: read() failed.\n");
    }
    return static_cast<size_t>(count);
}

void Uart::closeDeviceFile() {
    if (!file_.close()) {
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
