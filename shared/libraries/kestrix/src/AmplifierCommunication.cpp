#include "shared/libraries/kestrix/src/AmplifierCommunication.h"

#include <termios.h>

#include <stdexcept>

#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::Shared::Kestrix {

namespace {

constexpr unsigned int uartBaudRate = B38400;
constexpr unsigned int uartTimeoutMs = 200;

board_t boardOfDevice() {
    switch (RegistersAddress::deviceType) {
        case 0:
            return board_t::eightChannels;
        case 1:
            return board_t::twoChannels;
        default:
            throw std::logic_error("invalid board type");
    }
}

}  // namespace

AmplifierCommunication::AmplifierCommunication(unsigned long count)
    : uartMux_(std::make_shared<UartMux>(RegistersAddress::i2cDeviceFileName, boardOfDevice())),
      uart_(std::make_shared<ZornLib::Protocols::Uart::Uart>(RegistersAddress::uartDeviceFileName, uartBaudRate,
                                                             uartTimeoutMs)),
      linkMutex_(std::make_shared<std::recursive_mutex>()) {
    uart_->openDeviceFile();
    uart_->initialize();
    amplifiers_.reserve(count);
    for (unsigned long index = 0; index < count; ++index) {
        amplifiers_.push_back(
            std::make_shared<AmplifierProperties>(static_cast<int>(index), uart_, uartMux_, linkMutex_));
    }
}

std::shared_ptr<AmplifierProperties> AmplifierCommunication::getAmplifier(int index) const {
    return amplifiers_[static_cast<size_t>(index)];
}

}  // namespace Harvane::Shared::Kestrix
