#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/model/CanBus.h"
#include "simulator/model/Faults.h"

namespace kestrixsim {

// What a command of the instrument does to who runs it.
struct CommandResult {
    std::string output{};  // on its standard output
    std::string errors{};  // on its standard error output
    int status = 0;        // exit status
};

// The command lines with which a program sets CAN interfaces, and the one that counts them. An interpreter of exactly
// these, in the words of the `ip` tool and with the kernel's rules:
//   ip link set up NAME            ip link set NAME type can bitrate N
//   ip link set down NAME          ip link set NAME type can listen-only on|off
//   ip link set NAME txqueuelen N  ip link set NAME type can restart-ms N
//   ls -A /sys/class/net | grep "can" | wc -l
// Thread-safe.
class CanCommands {
public:
    CanCommands(CanBus& bus, Faults& faults) : bus_(bus), faults_(faults) {}

    // Those for interfaces that aren't CAN ones are somebody else's.
    bool owns(const std::string& commandLine) const;
    CommandResult run(const std::string& commandLine);

private:
    using Words = std::vector<std::string>;
    CommandResult link(const Words& words);

    CanBus& bus_;
    Faults& faults_;
};

}  // namespace kestrixsim
