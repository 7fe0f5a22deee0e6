#pragma once

#include <array>
#include <cstdint>

namespace kestrixsim {

// A classic CAN frame as <linux/can.h> has it: the identifier carries the flags below.
struct CanFrame {
    static constexpr uint32_t extended = 0x80000000;  // identifier of 29 bits, 11 without it
    static constexpr uint32_t remote = 0x40000000;    // asks for the data of `length` and has none
    static constexpr uint32_t error = 0x20000000;     // the driver's report of an error, no frame of the bus

    uint32_t id = 0;
    uint8_t length = 0;  // 0 to 8
    std::array<uint8_t, 8> data{};

    bool operator==(const CanFrame&) const = default;

    bool isExtended() const { return (id & extended) != 0; }
    bool isRemote() const { return (id & remote) != 0; }
    bool isError() const { return (id & error) != 0; }

    // Bits from the start of frame to the end of EOF, stuff bits of this very frame included (ISO 11898-1). A report
    // of an error counts as an error flag with its delimiter.
    int bits() const;
    // What decides who goes first when several start at once: the lower number wins, as the dominant bit does.
    uint32_t priority() const;

    static constexpr int gapBits = 3;     // between two frames
    static constexpr int errorBits = 14;  // error flag and delimiter
};

}  // namespace kestrixsim
