#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/model/CanFrame.h"

namespace kestrixsim {

// A recording of CAN traffic as `candump -L` writes it, one frame a line:
//   (1436509052.249713) can0 123#DEADBEEF       data of 0 to 8 bytes, two hexadecimal digits each
// Identifiers of 3 digits are standard, those of 8 extended or, with the flag 20000000, reports of an error. "#R" and
// "#R4" are remote frames. A " R" or " T" at the end, which `candump -x` adds, says nothing to us. Empty lines count
// for nothing, a line of CAN FD is an error like any other that is none of this.
struct CanLog {
    struct Entry {
        int64_t nanoseconds;  // since the earliest of the file, of whatever interface
        CanFrame frame;
    };

    // In the order of time; lines of one time in that of the file. `interface`: whose lines; empty: all. `name` stands
    // in front of messages. Throws ScenarioError with name, line and reason; takes any bytes.
    static std::vector<Entry> parse(std::string_view text, const std::string& name, const std::string& interface = "");
    // The same of a file.
    static std::vector<Entry> read(const std::string& file, const std::string& interface = "");
};

}  // namespace kestrixsim
