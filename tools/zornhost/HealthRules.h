#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/zornhost/HealthFigures.h"

namespace zornhost {

enum class Health { Ok, Warn, Fail };

const char* healthText(Health health);  // "OK", "WARN", "FAIL"

// From which value on something is looked at, and from which on it is wrong.
struct HealthLimit {
    double warn = 0.0;
    double fail = 0.0;
};

// Limits that a file can change: {"processorTemperature": {"warn": 80, "fail": 90}}; what isn't named stays.
struct HealthLimits {
    HealthLimit processorTemperature{85.0, 95.0};  // degrees Celsius
    HealthLimit boardTemperature{70.0, 85.0};
    HealthLimit cableTemperature{70.0, 85.0};
    HealthLimit sensorAge{10.0, 30.0};      // s since a sensor was read
    HealthLimit phaseError{1.0, 10.0};      // us, either side, of a clock that follows a reference
    HealthLimit controlWord{400.0, 500.0};  // distance from 512, the middle of the oscillator's range
    HealthLimit emptySlots{9.0, 9.0};       // slots in which nothing answers; a full instrument wants 1
    HealthLimit descriptors{12.0, 16.0};    // found in one cycle; the driver holds 16 and then drops
    HealthLimit samplesLost{1.0, 1.0};
    HealthLimit framesLost{1.0, 1000.0};  // CAN frames and messages, of one port
    HealthLimit errors{1.0, 1000.0};      // in the log

    // Raises std::runtime_error with file, place and reason.
    static HealthLimits fromFile(const std::string& file);
};

// What a line is about: its name for machines, its heading, what it means and what to do.
struct HealthTopic {
    const char* key;
    const char* heading;
    const char* meaning;
    const char* remedy;
};

struct HealthVerdict {
    const HealthTopic* topic;
    Health health = Health::Ok;
    std::string text;  // what was found, and what is wrong with it
};

// In the order in which they are shown. What an instrument doesn't have has no line.
std::vector<HealthVerdict> judge(const HealthFigures& figures, const HealthLimits& limits);
Health worstOf(const std::vector<HealthVerdict>& verdicts);

nlohmann::ordered_json toJson(const std::vector<HealthVerdict>& verdicts);
// For people: a line each; with `explain` also what it means and what to do.
std::string describe(const std::vector<HealthVerdict>& verdicts, bool explain);

}  // namespace zornhost
