#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Harvane::RT::Modules::Daq {

// How a device's sensors stand. A copy, of one moment.
struct HealthState {
    struct Sensor {
        std::string group;           // the channel that it counts for: "CPU", "Board", "Cable"
        std::string name;            // "PS main", "0x48"
        std::string place;           // path or I2C address
        double celsius = 0.0;        // of the last read; 0 before the first and when that has failed
        bool ok = true;              // the last read worked; true before the first
        std::string reason;          // why it failed
        std::uint64_t reads = 0;     // since the instrument was opened
        std::uint64_t failures = 0;  // of them
        double ageSeconds = -1.0;    // of the last read; -1 before the first
    };
    // A digital input.
    struct Line {
        std::string name;    // "Cable detect 1"
        std::string place;   // path
        bool value = false;  // now
        std::string reason;  // why it can't be read; empty: it can
    };

    std::vector<Sensor> sensors;
    std::vector<Line> lines;
};

}  // namespace Harvane::RT::Modules::Daq
