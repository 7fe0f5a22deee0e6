#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zornhost {

// A sample of a CAN channel, as it lies in the ring. It holds no flags: identifiers up to 7FF are shown as those of
// standard frames, larger ones as those of extended frames.
struct CanFrame {
    uint32_t id = 0;
    uint8_t length = 0;  // bytes of data, 0 to 8
    std::array<uint8_t, 8> data{};
    std::array<uint8_t, 3> reserved{};

    bool extended() const { return id > 0x7FF; }
};
static_assert(sizeof(CanFrame) == 16);

// Written by SocketCAN's tools as "123#DEADBEEF".
std::string frameText(const CanFrame& frame);
// The same, read. Raises std::runtime_error that says what is wrong; remote and flexible frames are none that a CAN
// channel can hold.
CanFrame frameFromText(std::string_view text);

// A line of the log format of SocketCAN's tools: "(1436509052.249713) can0 123#DEADBEEF". `timeUs` since the Unix
// epoch.
std::string logLine(int64_t timeUs, std::string_view interface, const CanFrame& frame);

// Bits that a frame takes on the wire with the three bits between two frames, stuff bits counted by the frame's own
// bits (ISO 11898-1).
unsigned bitsOf(const CanFrame& frame);

// What a user wants to see: "123" an identifier, "100-1FF" a range, "123:7F0" an identifier and the mask of its bits
// that count. Hexadecimal. Without any filter all pass.
class CanFilter {
public:
    // Raises std::runtime_error for what is none.
    explicit CanFilter(const std::vector<std::string>& texts);
    bool passes(uint32_t id) const;

private:
    struct Rule {
        uint32_t low;
        uint32_t high;
        uint32_t mask;  // 0: a range
    };
    std::vector<Rule> rules_;
};

}  // namespace zornhost
