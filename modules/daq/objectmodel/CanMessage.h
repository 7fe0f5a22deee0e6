#pragma once

#include <cstddef>
#include <cstdint>

namespace Harvane::RT::Modules::Daq {

// Sample of a CAN channel: one classic CAN frame.
struct CanMessage {
    std::uint32_t id = 0;         // Identifier without flags.
    std::uint8_t dataLength = 0;  // 0 to 8.
    std::uint8_t data[8] = {};    // Bytes beyond dataLength mean nothing.
    std::uint8_t reserved1 = 0;   // 0 on reception.
    std::uint16_t reserved2 = 0;  // 0 on reception.
};

static_assert(sizeof(CanMessage) == 16 && offsetof(CanMessage, dataLength) == 4 && offsetof(CanMessage, data) == 5 &&
              offsetof(CanMessage, reserved1) == 13 && offsetof(CanMessage, reserved2) == 14);

}  // namespace Harvane::RT::Modules::Daq
