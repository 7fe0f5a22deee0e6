#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zornhost {

// What goes out of the instrument while an acquisition runs: the newest sample of a channel, scaled and in its unit, as
// the message of a CAN port on every nth cycle, or as the value of an analog output on every cycle.
struct Route {
    std::string source;  // pattern of a channel: "AI 1/Raw input"
    std::string target;  // "CAN Port 1", or pattern of an analog output
    bool can = false;
    uint32_t id = 0;       // of a CAN message
    int64_t every = 1;     // cycles
    bool byRange = false;  // of an analog output: the source's range becomes the output's
};

// "AI 1/Raw input -> CAN Port 1 id 0x123 every 10", "AI 1/Raw input -> AO 1", "AI 1/Raw input -> AO 1 from range".
// Raises std::runtime_error that says how a route is written.
Route routeFromText(std::string_view text);
// The same, written.
std::string routeText(const Route& route);

}  // namespace zornhost
