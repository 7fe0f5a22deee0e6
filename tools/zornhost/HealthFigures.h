#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/zornhost/ClockReport.h"

namespace zornhost {

// What is known of the instrument's state at one moment, without a judgement.
struct HealthFigures {
    struct Sensor {
        std::string group;     // "CPU", "Board", "Cable"
        std::string name;      // "PS main", "0x48"
        std::string place;     // path or I2C address
        double celsius = 0.0;  // of the last read
        bool ok = true;        // it worked
        std::string reason;    // why it didn't
        int64_t reads = 0;
        int64_t failures = 0;      // of them
        double ageSeconds = -1.0;  // of the last read; -1: none yet
    };
    // A digital input.
    struct Line {
        std::string name;
        std::string place;
        bool value = false;
        std::string reason;  // why it can't be read
    };
    struct Amplifier {
        std::string module;   // "AI 1"
        bool fitted = false;  // there is one in the slot
        std::string failure;  // what it has not taken, or that it doesn't answer
    };
    // A count of a CAN port that is not 0.
    struct PortCount {
        std::string port;  // "CAN Port 1"
        int64_t value = 0;
        std::string text;  // "lost: its input channel was not in use"
        bool isLoss = false;
    };
    // An error in the log, with what was the same but for its numbers.
    struct Error {
        std::string source;  // the logger's name
        std::string text;    // the last of them
        int64_t count = 0;
        int64_t lastUs = 0;  // since the Unix epoch
    };

    int64_t timeUs = 0;  // when this was so, since the Unix epoch
    std::string holder;  // what the process does that holds the instrument: "record"
    std::string supply;  // of the amplifiers: "on", "off", "always on"; "" when nobody knows
    std::vector<Sensor> sensors;
    std::vector<Line> lines;
    std::string sensorFailure;  // why nothing is known of sensors and lines
    std::optional<ClockReport> clock;
    std::vector<Amplifier> amplifiers;
    std::vector<std::string> ports;  // "CAN Port 1"
    std::vector<PortCount> portCounts;
    int64_t streams = 0;           // analog channels in use
    int64_t streamsSilent = 0;     // of them, without a sample for more than a second
    int64_t mostDescriptors = -1;  // found in one cycle, over all streams; -1: unknown
    int64_t driverDescriptors = 16;
    int64_t samplesLost = -1;   // that a recording has found missing; -1: none runs
    std::vector<Error> errors;  // the latest first
};

nlohmann::ordered_json toJson(const HealthFigures& figures);
// Raises std::runtime_error for what are no such figures.
HealthFigures healthFiguresFromJson(const nlohmann::ordered_json& json);

}  // namespace zornhost
