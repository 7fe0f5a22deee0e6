#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "shared/libraries/kestrix/src/AmplifierProperties.h"

namespace Harvane::Shared::Kestrix {

// The link to the amplifiers: multiplexer, serial port, and one AmplifierProperties for every slot. They share one
// recursive mutex, which an exchange holds, so that exchanges of different modules never overlap on the one port.
class AmplifierCommunication {
public:
    // Opens bus and port for the board of RegistersAddress::deviceType. Throws std::logic_error "invalid board type"
    // for any other, std::runtime_error when bus or port can't be opened.
    explicit AmplifierCommunication(unsigned long count);
    AmplifierCommunication(const AmplifierCommunication&) = delete;
    AmplifierCommunication& operator=(const AmplifierCommunication&) = delete;

    // `index` must be below the count; it is not checked.
    std::shared_ptr<AmplifierProperties> getAmplifier(int index) const;

private:
    std::shared_ptr<UartMux> uartMux_;
    std::shared_ptr<ZornLib::Protocols::Uart::Uart> uart_;
    std::vector<std::shared_ptr<AmplifierProperties>> amplifiers_;
    std::shared_ptr<std::recursive_mutex> linkMutex_;
};

}  // namespace Harvane::Shared::Kestrix
