#include "tools/zornhost/HealthRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "tools/zornhost/Output.h"

namespace zornhost {

using Json = nlohmann::ordered_json;

namespace {

constexpr double middleOfControl = 512.0;
constexpr size_t errorsShown = 3;

constexpr std::array<std::pair<const char*, HealthLimit HealthLimits::*>, 11> limitNames{{
    {"processorTemperature", &HealthLimits::processorTemperature},
    {"boardTemperature", &HealthLimits::boardTemperature},
    {"cableTemperature", &HealthLimits::cableTemperature},
    {"sensorAge", &HealthLimits::sensorAge},
    {"phaseError", &HealthLimits::phaseError},
    {"controlWord", &HealthLimits::controlWord},
    {"emptySlots", &HealthLimits::emptySlots},
    {"descriptors", &HealthLimits::descriptors},
    {"samplesLost", &HealthLimits::samplesLost},
    {"framesLost", &HealthLimits::framesLost},
    {"errors", &HealthLimits::errors},
}};

constexpr HealthTopic processorTopic{
    "processorTemperature", "Processor", "The highest of the processor's temperature sensors, read every 2.5 s.",
    "Let air to the instrument, look at its fan, take it out of the sun; a sensor that fails is named."};
constexpr HealthTopic boardTopic{
    "boardTemperature", "Board", "The highest of the temperature sensors on the board, read every 2.5 s.",
    "As with the processor. A sensor on the I2C bus that doesn't answer is one to repair."};
constexpr HealthTopic cableTopic{"cableTemperature", "Cable",
                                 "The temperature in the cable, by its platinum resistance.",
                                 "Not a number: no cable, or a broken sensor in it."};
constexpr HealthTopic lockTopic{
    "lock", "Clock",
    "Whether the sampling clock follows its reference. Held: it was locked and goes on alone meanwhile.",
    "See `zornhost clock`: it says what is missing. Samples are there all the same, their time is off."};
constexpr HealthTopic phaseTopic{"phaseError", "Phase error",
                                 "What lies between the instrument's pulse and the reference's, at the last pulse.",
                                 "Wait for the lock. If it stays: another reference, a better antenna or PTP master."};
constexpr HealthTopic controlTopic{
    "controlWord", "Control word", "What steers the oscillator, 0 to 1023; near its ends it can't follow any further.",
    "The oscillator has aged or is far too warm or cold, or the reference's second is none."};
constexpr HealthTopic supplyTopic{
    "supply", "Supply", "Whether the amplifiers have their supply.",
    "It comes on when the instrument is opened; off afterwards, the board has switched it "
    "off: look for a short circuit at a module."};
constexpr HealthTopic amplifierTopic{
    "amplifiers", "Amplifiers",
    "Which slots hold an amplifier, and which of them don't answer or have refused settings.",
    "`zornhost amplifier \"AI n\"` says more. Push the module in; try it in another slot."};
constexpr HealthTopic portTopic{"ports", "CAN ports",
                                "Frames that were lost and messages that could not be sent, by cause.",
                                "`zornhost can stats` says more: bit rate, cabling and termination, load of the bus."};
constexpr HealthTopic streamTopic{"streams", "Streams", "Analog channels in use, and whether samples come from each.",
                                  "A channel without any: its amplifier, or the converters' clock. Start again."};
constexpr HealthTopic descriptorTopic{
    "descriptors", "Descriptors",
    "The most blocks of samples that one cycle has found waiting. The driver holds 16 of a stream and drops what comes "
    "behind them.",
    "The process did not get to run in time: priority (`zornhost doctor`), other load, a paused virtual machine."};
constexpr HealthTopic lossTopic{"samplesLost", "Lost samples", "Samples that the recording has found missing.",
                                "A faster disk, fewer channels, a lower rate."};
constexpr HealthTopic lineTopic{"lines", "Inputs", "The lines by which the instrument sees its cables.",
                                "A line that can't be read: its GPIO file is missing (`zornhost doctor`)."};
constexpr HealthTopic errorTopic{"errors", "Errors",
                                 "Errors in the log since the instrument was prepared, the latest first.",
                                 "Each says what failed and why; --log-level shows more."};

Health by(double value, const HealthLimit& limit) {
    return value >= limit.fail ? Health::Fail : value >= limit.warn ? Health::Warn : Health::Ok;
}

Health worse(Health one, Health other) {
    return std::max(one, other);
}

std::string plural(int64_t count, const char* one, const char* many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

// One group of sensors: the highest, whose it is, and those that have something wrong with them.
void judgeSensors(const HealthFigures& figures, const char* group, const HealthTopic& topic, const HealthLimit& limit,
                  const HealthLimits& limits, std::vector<HealthVerdict>& verdicts) {
    const HealthFigures::Sensor* highest = nullptr;
    std::string troubles;
    Health health = Health::Ok;
    size_t found = 0;
    for (const auto& sensor : figures.sensors) {
        if (sensor.group != group) {
            continue;
        }
        ++found;
        std::string trouble;
        Health worst = Health::Warn;
        if (!sensor.ok) {
            trouble = fmt::format("fails: {}", sensor.reason);
        } else if (sensor.ageSeconds < 0.0) {
            trouble = "has not been read yet";
        } else if (std::isnan(sensor.celsius)) {
            trouble = "gives no number";
        } else if (const Health age = by(sensor.ageSeconds, limits.sensorAge); age != Health::Ok) {
            worst = age;
            trouble = fmt::format("was read {:.0f} s ago", sensor.ageSeconds);
        }
        if (trouble.empty() || (sensor.ok && sensor.ageSeconds >= 0.0 && !std::isnan(sensor.celsius))) {
            if (highest == nullptr || sensor.celsius > highest->celsius) {
                highest = &sensor;
            }
        }
        if (!trouble.empty()) {
            health = worse(health, worst);
            troubles += fmt::format("; {} ({}) {}", sensor.name, sensor.place, trouble);
        }
    }
    if (found == 0) {
        if (std::strcmp(group, "Cable") != 0 && figures.sensorFailure.empty()) {
            verdicts.push_back({&topic, Health::Warn, "no sensor"});
        }
        return;
    }
    if (highest == nullptr) {
        verdicts.push_back({&topic, Health::Fail, "unknown" + troubles});
        return;
    }
    const Health warmth = by(highest->celsius, limit);
    std::string text = fmt::format("{:.1f} C ({})", highest->celsius, highest->name);
    if (warmth != Health::Ok) {
        text += fmt::format(", {:.0f} and more", warmth == Health::Fail ? limit.fail : limit.warn);
    }
    verdicts.push_back({&topic, worse(health, warmth), text + troubles});
}

void judgeClock(const ClockReport& clock, const HealthLimits& limits, std::vector<HealthVerdict>& verdicts) {
    if (!clock.failure.empty()) {
        verdicts.push_back({&lockTopic, Health::Fail, "unknown: " + clock.failure});
        return;
    }
    const Health lock = clock.lock == Lock::NotLocked ? Health::Fail
                        : clock.lock == Lock::Holding ? Health::Warn
                                                      : Health::Ok;
    const std::string obstacle = clock.obstacle();
    verdicts.push_back(
        {&lockTopic, lock,
         fmt::format("{}: {}{}", clock.mode, lockText(clock.lock), obstacle.empty() ? "" : ": " + obstacle)});
    if (!clock.followsNothing() && clock.last.steered) {
        const double us = clock.last.phaseErrorNs / 1000.0;
        verdicts.push_back({&phaseTopic, by(std::fabs(us), limits.phaseError), fmt::format("{:.3f} us", us)});
    }
    if (clock.last.pulse == 0) {
        verdicts.push_back({&controlTopic, Health::Warn, "unknown: no pulse of the timing device has come"});
        return;
    }
    const Health control = by(std::fabs(clock.last.controlWord - middleOfControl), limits.controlWord);
    verdicts.push_back({&controlTopic, control,
                        fmt::format("{}{}", clock.last.controlWord,
                                    control == Health::Ok ? "" : ", near the end of what the oscillator can do")});
}

void judgeAmplifiers(const HealthFigures& figures, const HealthLimits& limits, std::vector<HealthVerdict>& verdicts) {
    if (!figures.supply.empty()) {
        verdicts.push_back({&supplyTopic,
                            figures.supply == "on" || figures.supply == "always on" ? Health::Ok : Health::Fail,
                            figures.supply});
    }
    const auto fitted = std::count_if(figures.amplifiers.begin(), figures.amplifiers.end(),
                                      [](const auto& amplifier) { return amplifier.fitted; });
    std::string text =
        fmt::format("{} in {}", fitted, plural(static_cast<int64_t>(figures.amplifiers.size()), "slot", "slots"));
    std::vector<std::string> silent;
    for (const auto& amplifier : figures.amplifiers) {
        if (!amplifier.fitted) {
            silent.push_back(amplifier.module);
        }
    }
    Health health = fitted == 0 ? Health::Fail : by(static_cast<double>(silent.size()), limits.emptySlots);
    if (!silent.empty()) {
        text += fmt::format("; nothing answers in {}", fmt::join(silent, ", "));
    }
    for (const auto& amplifier : figures.amplifiers) {
        if (!amplifier.failure.empty()) {
            health = Health::Fail;
            text += fmt::format("; {}: {}", amplifier.module, amplifier.failure);
        }
    }
    verdicts.push_back({&amplifierTopic, health, text});
}

void judgeStreams(const HealthFigures& figures, const HealthLimits& limits, std::vector<HealthVerdict>& verdicts) {
    if (figures.streams > 0) {
        const Health silent = figures.streamsSilent == 0 ? Health::Ok : Health::Fail;
        verdicts.push_back(
            {&streamTopic, silent,
             plural(figures.streams, "channel", "channels") +
                 (figures.streamsSilent == 0 ? "" : fmt::format(", {} without samples", figures.streamsSilent))});
        const bool known = figures.mostDescriptors >= 0;
        const Health found =
            known ? by(static_cast<double>(figures.mostDescriptors), limits.descriptors) : Health::Warn;
        verdicts.push_back(
            {&descriptorTopic, found,
             !known ? "unknown"
                    : fmt::format("{} of {} in one cycle{}", figures.mostDescriptors, figures.driverDescriptors,
                                  found == Health::Fail ? ": samples may be missing" : "")});
    }
    if (figures.samplesLost >= 0) {
        verdicts.push_back({&lossTopic, by(static_cast<double>(figures.samplesLost), limits.samplesLost),
                            figures.samplesLost == 0 ? "none" : fmt::format("{}", figures.samplesLost)});
    }
}

void judgePorts(const HealthFigures& figures, const HealthLimits& limits, std::vector<HealthVerdict>& verdicts) {
    if (figures.ports.empty()) {
        return;
    }
    Health health = Health::Ok;
    std::string text = plural(static_cast<int64_t>(figures.ports.size()), "port", "ports");
    for (const auto& count : figures.portCounts) {
        const Health one = count.isLoss ? by(static_cast<double>(count.value), limits.framesLost) : Health::Ok;
        health = worse(health, one);
        if (one != Health::Ok || !count.isLoss) {
            text += fmt::format("; {}: {} {}", count.port, count.value, count.text);
        }
    }
    verdicts.push_back({&portTopic, health, text});
}

void judgeLines(const HealthFigures& figures, std::vector<HealthVerdict>& verdicts) {
    if (figures.lines.empty()) {
        return;
    }
    Health health = Health::Ok;
    std::string text;
    for (const auto& line : figures.lines) {
        text += text.empty() ? "" : ", ";
        if (line.reason.empty()) {
            text += fmt::format("{} {}", line.name, line.value ? "on" : "off");
        } else {
            health = Health::Warn;
            text += fmt::format("{} can't be read: {}", line.name, line.reason);
        }
    }
    verdicts.push_back({&lineTopic, health, text});
}

void judgeErrors(const HealthFigures& figures, const HealthLimits& limits, std::vector<HealthVerdict>& verdicts) {
    int64_t sum = 0;
    std::string text;
    for (size_t i = 0; i < figures.errors.size(); ++i) {
        const auto& error = figures.errors[i];
        sum += error.count;
        if (i < errorsShown) {
            text += fmt::format("; {} times, last {}: {}", error.count, isoTime(error.lastUs), error.text);
        }
    }
    verdicts.push_back({&errorTopic, by(static_cast<double>(sum), limits.errors),
                        sum == 0 ? "none" : plural(sum, "error", "errors") + text});
}

[[noreturn]] void refuse(const std::string& file, const std::string& why) {
    throw std::runtime_error(fmt::format("{}: {}", file, why));
}

}  // namespace

const char* healthText(Health health) {
    return health == Health::Ok ? "OK" : health == Health::Warn ? "WARN" : "FAIL";
}

HealthLimits HealthLimits::fromFile(const std::string& file) {
    std::ifstream stream(file);
    if (!stream) {
        refuse(file, std::strerror(errno));
    }
    Json json;
    try {
        json = Json::parse(stream);
    } catch (const Json::exception& failure) {
        refuse(file, failure.what());
    }
    if (!json.is_object()) {
        refuse(file, "limits are an object: {\"processorTemperature\": {\"warn\": 80, \"fail\": 90}}");
    }
    HealthLimits limits;
    for (const auto& [name, value] : json.items()) {
        const auto known = std::find_if(limitNames.begin(), limitNames.end(),
                                        [&, &name = name](const auto& entry) { return name == entry.first; });
        if (known == limitNames.end()) {
            std::vector<std::string> names;
            std::transform(limitNames.begin(), limitNames.end(), std::back_inserter(names),
                           [](const auto& entry) { return entry.first; });
            refuse(file, fmt::format("there is no limit \"{}\"; there are {}", name, fmt::join(names, ", ")));
        }
        if (!value.is_object()) {
            refuse(file, fmt::format("\"{}\" must be {{\"warn\": NUMBER, \"fail\": NUMBER}}", name));
        }
        HealthLimit& limit = limits.*known->second;
        for (const auto& [part, number] : value.items()) {
            if ((part != "warn" && part != "fail") || !number.is_number()) {
                refuse(file, fmt::format("\"{}\": \"{}\" must be \"warn\" or \"fail\" with a number", name, part));
            }
            (part == "warn" ? limit.warn : limit.fail) = number.get<double>();
        }
        if (limit.warn > limit.fail) {
            refuse(file, fmt::format("\"{}\" warns at {} and fails below that, at {}", name, limit.warn, limit.fail));
        }
    }
    return limits;
}

std::vector<HealthVerdict> judge(const HealthFigures& figures, const HealthLimits& limits) {
    std::vector<HealthVerdict> verdicts;
    if (!figures.sensorFailure.empty()) {
        verdicts.push_back({&processorTopic, Health::Fail, "unknown: " + figures.sensorFailure});
    }
    judgeSensors(figures, "CPU", processorTopic, limits.processorTemperature, limits, verdicts);
    judgeSensors(figures, "Board", boardTopic, limits.boardTemperature, limits, verdicts);
    judgeSensors(figures, "Cable", cableTopic, limits.cableTemperature, limits, verdicts);
    if (figures.clock) {
        judgeClock(*figures.clock, limits, verdicts);
    }
    judgeAmplifiers(figures, limits, verdicts);
    judgePorts(figures, limits, verdicts);
    judgeStreams(figures, limits, verdicts);
    judgeLines(figures, verdicts);
    judgeErrors(figures, limits, verdicts);
    return verdicts;
}

Health worstOf(const std::vector<HealthVerdict>& verdicts) {
    Health worst = Health::Ok;
    for (const auto& verdict : verdicts) {
        worst = worse(worst, verdict.health);
    }
    return worst;
}

Json toJson(const std::vector<HealthVerdict>& verdicts) {
    Json json = Json::array();
    for (const auto& verdict : verdicts) {
        json.push_back({{"key", verdict.topic->key},
                        {"state", healthText(verdict.health)},
                        {"text", verdict.text},
                        {"meaning", verdict.topic->meaning},
                        {"remedy", verdict.topic->remedy}});
    }
    return json;
}

std::string describe(const std::vector<HealthVerdict>& verdicts, bool explain) {
    std::string text;
    for (const auto& verdict : verdicts) {
        text += fmt::format("{:<5} {:<13} {}\n", healthText(verdict.health), verdict.topic->heading, verdict.text);
        if (explain) {
            text += fmt::format("      {}\n", verdict.topic->meaning);
            if (verdict.health != Health::Ok) {
                text += fmt::format("      What to do: {}\n", verdict.topic->remedy);
            }
        }
    }
    return text;
}

}  // namespace zornhost
