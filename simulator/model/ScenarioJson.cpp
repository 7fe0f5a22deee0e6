#include "simulator/model/ScenarioJson.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "simulator/model/CanLog.h"
#include "simulator/model/WavFile.h"

namespace kestrixsim {

namespace {

using Json = nlohmann::ordered_json;

template <typename E>
using Choice = std::pair<std::string_view, E>;

constexpr auto waveformKinds = std::to_array<Choice<WaveformKind>>({
    {"constant", WaveformKind::Constant},
    {"sine", WaveformKind::Sine},
    {"square", WaveformKind::Square},
    {"ramp", WaveformKind::Ramp},
    {"noise", WaveformKind::Noise},
    {"wav", WaveformKind::Wav},
    {"counter", WaveformKind::Counter},
});

constexpr auto amplifierKinds = std::to_array<Choice<AmplifierKind>>({
    {"voltage", AmplifierKind::Voltage},
    {"bridge", AmplifierKind::Bridge},
    {"iepe", AmplifierKind::Iepe},
    {"highVoltage", AmplifierKind::HighVoltage},
    {"unknown", AmplifierKind::Unknown},
});

constexpr auto waveformUnits = std::to_array<Choice<WaveformUnit>>({
    {"counts", WaveformUnit::Counts},
    {"physical", WaveformUnit::Physical},
});

constexpr auto sensors = std::to_array<Choice<Sensor>>({
    {"ok", Sensor::Ok},
    {"open", Sensor::Open},
    {"shorted", Sensor::Shorted},
});

constexpr auto sensorFamilies = std::to_array<Choice<SensorFamily>>({
    {"monitors", SensorFamily::Monitors},
    {"chips", SensorFamily::Chips},
    {"both", SensorFamily::Both},
    {"none", SensorFamily::None},
});

constexpr auto faultKinds = std::to_array<Choice<FaultKind>>({
    {"eepromSilent", FaultKind::EepromSilent},
    {"eepromShortRead", FaultKind::EepromShortRead},
    {"memOpen", FaultKind::MemOpen},
    {"memMap", FaultKind::MemMap},
    {"i2cOpen", FaultKind::I2cOpen},
    {"uartOpen", FaultKind::UartOpen},
    {"uartAttributes", FaultKind::UartAttributes},
    {"uartRead", FaultKind::UartRead},
    {"uartWrite", FaultKind::UartWrite},
    {"i2cSlave", FaultKind::I2cSlave},
    {"dmaOpen", FaultKind::DmaOpen},
    {"dmaIoctl", FaultKind::DmaIoctl},
    {"dmaRead", FaultKind::DmaRead},
    {"dmaShortRead", FaultKind::DmaShortRead},
    {"dmaStall", FaultKind::DmaStall},
    {"amplifierSilent", FaultKind::AmplifierSilent},
    {"amplifierGarbage", FaultKind::AmplifierGarbage},
    {"amplifierBadStatus", FaultKind::AmplifierBadStatus},
    {"amplifierHalfFrame", FaultKind::AmplifierHalfFrame},
    {"amplifierLate", FaultKind::AmplifierLate},
    {"amplifierNan", FaultKind::AmplifierNan},
    {"muxAgain", FaultKind::MuxAgain},
    {"muxError", FaultKind::MuxError},
    {"muxReadsBack", FaultKind::MuxReadsBack},
    {"scriptRefuses", FaultKind::ScriptRefuses},
    {"scriptSilent", FaultKind::ScriptSilent},
    {"scriptUnheard", FaultKind::ScriptUnheard},
    {"scriptFails", FaultKind::ScriptFails},
    {"scriptsMissing", FaultKind::ScriptsMissing},
    {"clearLate", FaultKind::ClearLate},
    {"clearNever", FaultKind::ClearNever},
    {"pllBusy", FaultKind::PllBusy},
    {"sysfsMissing", FaultKind::SysfsMissing},
    {"timingOpen", FaultKind::TimingOpen},
    {"timingSilent", FaultKind::TimingSilent},
    {"timingRead", FaultKind::TimingRead},
    {"timingShortRead", FaultKind::TimingShortRead},
    {"syncHeld", FaultKind::SyncHeld},
    {"oscillatorSilent", FaultKind::OscillatorSilent},
    {"ptpLost", FaultKind::PtpLost},
    {"ptpLate", FaultKind::PtpLate},
    {"ptpGarbled", FaultKind::PtpGarbled},
    {"ptpWrongId", FaultKind::PtpWrongId},
    {"ptpOversized", FaultKind::PtpOversized},
    {"ptpTwice", FaultKind::PtpTwice},
    {"ptpErrorStatus", FaultKind::PtpErrorStatus},
    {"ptpBadVersion", FaultKind::PtpBadVersion},
    {"canErrorFrame", FaultKind::CanErrorFrame},
    {"canBusOff", FaultKind::CanBusOff},
    {"canUp", FaultKind::CanUp},
    {"canCommandFails", FaultKind::CanCommandFails},
    {"canCommandStatus", FaultKind::CanCommandStatus},
    {"canCommandSilent", FaultKind::CanCommandSilent},
    {"canSocket", FaultKind::CanSocket},
    {"canIndex", FaultKind::CanIndex},
    {"canFlags", FaultKind::CanFlags},
    {"canBind", FaultKind::CanBind},
    {"canOption", FaultKind::CanOption},
    {"canWait", FaultKind::CanWait},
    {"canRead", FaultKind::CanRead},
    {"canShortRead", FaultKind::CanShortRead},
    {"canWrite", FaultKind::CanWrite},
    {"canShortWrite", FaultKind::CanShortWrite},
    {"canStamp", FaultKind::CanStamp},
    {"sensorMissing", FaultKind::SensorMissing},
    {"sensorDenied", FaultKind::SensorDenied},
    {"sensorRubbish", FaultKind::SensorRubbish},
    {"sensorSlow", FaultKind::SensorSlow},
});

// What `target` and `code` may be. Kinds that are not here have neither.
struct FaultNumbers {
    FaultKind kind;
    int targets;     // from 0 to below this one
    uint32_t codes;  // from 0 to this one
};

constexpr int canTargets = 32;
constexpr int sensorTargets = 15;

constexpr auto faultNumbers = std::to_array<FaultNumbers>({
    {FaultKind::MemMap, 0, std::numeric_limits<uint32_t>::max()},
    {FaultKind::MemOpen, 0, 4095},  // the highest errno
    {FaultKind::I2cOpen, 0, 4095},
    {FaultKind::UartOpen, 0, 4095},
    {FaultKind::DmaOpen, 16, 4095},
    {FaultKind::DmaIoctl, 16, std::numeric_limits<uint32_t>::max()},
    {FaultKind::DmaRead, 16, 4095},
    {FaultKind::DmaShortRead, 16, 1},
    {FaultKind::DmaStall, 16, 0},
    {FaultKind::AmplifierSilent, 8, 0},
    {FaultKind::AmplifierGarbage, 8, 4096},
    {FaultKind::AmplifierBadStatus, 8, 255},
    {FaultKind::AmplifierHalfFrame, 8, 0},
    {FaultKind::AmplifierLate, 8, 60000},
    {FaultKind::AmplifierNan, 8, 0},
    {FaultKind::MuxReadsBack, 0, 0x7F},
    {FaultKind::ClearLate, 8, 60000},
    {FaultKind::ClearNever, 8, 0},
    {FaultKind::TimingOpen, 0, 4095},
    {FaultKind::TimingRead, 0, 4095},
    {FaultKind::PtpLate, 0, 60000},
    {FaultKind::PtpOversized, 0, 65000},
    {FaultKind::PtpErrorStatus, 0, 0xFFFF},
    {FaultKind::PtpBadVersion, 0, 15},
    {FaultKind::CanErrorFrame, canTargets, 0x1FF},
    {FaultKind::CanBusOff, canTargets, 0},
    {FaultKind::CanUp, canTargets, 0},
    {FaultKind::CanCommandFails, 0, 4095},
    {FaultKind::CanCommandStatus, 0, 255},
    {FaultKind::CanSocket, 0, 4095},
    {FaultKind::CanIndex, canTargets, 0},
    {FaultKind::CanFlags, canTargets, 4095},
    {FaultKind::CanBind, canTargets, 4095},
    {FaultKind::CanOption, canTargets, 4095},
    {FaultKind::CanWait, canTargets, 4095},
    {FaultKind::CanRead, canTargets, 4095},
    {FaultKind::CanShortRead, canTargets, 0},
    {FaultKind::CanWrite, canTargets, 4095},
    {FaultKind::CanShortWrite, canTargets, 0},
    {FaultKind::CanStamp, canTargets, 0},
    {FaultKind::SensorMissing, sensorTargets, 0},
    {FaultKind::SensorDenied, sensorTargets, 0},
    {FaultKind::SensorRubbish, sensorTargets, 0},
    {FaultKind::SensorSlow, sensorTargets, 600000},
});

template <typename E, size_t N>
std::string_view nameOf(const std::array<Choice<E>, N>& choices, E value) {
    const auto found = std::find_if(choices.begin(), choices.end(), [&](const auto& c) { return c.second == value; });
    return found != choices.end() ? found->first : std::string_view("?");
}

std::string hex(uint64_t value, int digits) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%0*llX", digits, static_cast<unsigned long long>(value));
    return text;
}

std::string number(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.10g", value);
    return text;
}

// One JSON object while it is read: every key must be asked for, or it is unknown.
class Section {
public:
    Section(const Json& json, std::string where, std::string name)
        : json_(json), where_(std::move(where)), name_(std::move(name)) {
        if (!json_.is_object()) {
            throw ScenarioError(name_ + ": " + (where_.empty() ? "the scenario" : where_) + " must be an object");
        }
    }

    // Call after the last key has been asked for.
    void finish() const {
        for (const auto& item : json_.items()) {
            if (std::find(asked_.begin(), asked_.end(), item.key()) == asked_.end()) {
                std::string known;
                for (std::string_view key : asked_) {
                    known += (known.empty() ? "" : ", ") + std::string(key);
                }
                fail(item.key(), "unknown key; known are " + known);
            }
        }
    }

    void read(std::string_view key, bool& value) {
        if (const Json* found = find(key)) {
            if (!found->is_boolean()) {
                wrongType(key, *found, "true or false");
            }
            value = found->get<bool>();
        }
    }

    void read(std::string_view key, std::string& value) {
        if (const Json* found = find(key)) {
            if (!found->is_string()) {
                wrongType(key, *found, "a text");
            }
            value = found->get<std::string>();
        }
    }

    void read(std::string_view key, double& value, double low, double high) {
        if (const Json* found = find(key)) {
            if (!found->is_number()) {
                wrongType(key, *found, "a number");
            }
            const double read = found->get<double>();
            if (!(read >= low && read <= high)) {
                fail(key, "is " + found->dump() + ", must be from " + number(low) + " to " + number(high));
            }
            value = read;
        }
    }

    // A number, or a text "0x..." where numbers are usually written in hexadecimal.
    template <typename T>
    void readInteger(std::string_view key, T& value, int64_t low, uint64_t high) {
        const Json* found = find(key);
        if (found == nullptr) {
            return;
        }
        bool negative = false;
        uint64_t magnitude = 0;
        if (found->is_number_unsigned()) {
            magnitude = found->get<uint64_t>();
        } else if (found->is_number_integer()) {
            const int64_t read = found->get<int64_t>();
            negative = read < 0;
            magnitude = negative ? 0 - static_cast<uint64_t>(read) : static_cast<uint64_t>(read);
        } else if (!found->is_string() || !fromHex(found->get_ref<const std::string&>(), magnitude)) {
            wrongType(key, *found, "a whole number or a text \"0x...\"");
        }
        const bool inside = negative ? low < 0 && magnitude <= 0 - static_cast<uint64_t>(low)
                                     : magnitude <= high && (low <= 0 || magnitude >= static_cast<uint64_t>(low));
        if (!inside) {
            fail(key, "is " + found->dump() + ", must be from " + std::to_string(low) + " to " + std::to_string(high));
        }
        value = static_cast<T>(negative ? 0 - magnitude : magnitude);
    }

    template <typename E, size_t N>
    void read(std::string_view key, E& value, const std::array<Choice<E>, N>& choices) {
        const Json* found = find(key);
        if (found == nullptr) {
            return;
        }
        if (found->is_string()) {
            for (const auto& [name, choice] : choices) {
                if (found->get_ref<const std::string&>() == name) {
                    value = choice;
                    return;
                }
            }
        }
        std::string names;
        for (const auto& choice : choices) {
            names += (names.empty() ? "" : ", ") + std::string(choice.first);
        }
        fail(key, "is " + found->dump() + ", must be one of " + names);
    }

    // Calls `each` with a Section for every element of a list.
    template <typename Each>
    void readList(std::string_view key, Each&& each) {
        const Json* found = find(key);
        if (found == nullptr) {
            return;
        }
        if (!found->is_array()) {
            wrongType(key, *found, "a list");
        }
        for (size_t i = 0; i < found->size(); ++i) {
            Section section((*found)[i], path(key) + "[" + std::to_string(i) + "]", name_);
            each(section);
            section.finish();
        }
    }

    template <typename Each>
    void readSection(std::string_view key, Each&& each) {
        if (const Json* found = find(key)) {
            Section section(*found, path(key), name_);
            each(section);
            section.finish();
        }
    }

    bool has(std::string_view key) const { return json_.contains(std::string(key)); }

    [[noreturn]] void fail(std::string_view key, const std::string& what) const {
        throw ScenarioError(name_ + ": " + path(key) + ": " + what);
    }

    void require(std::string_view key) const {
        if (!has(key)) {
            fail(key, "is missing");
        }
    }

private:
    const Json* find(std::string_view key) {
        asked_.push_back(key);
        const auto found = json_.find(std::string(key));
        return found != json_.end() ? &*found : nullptr;
    }

    std::string path(std::string_view key) const {
        return where_.empty() ? std::string(key) : where_ + "." + std::string(key);
    }

    [[noreturn]] void wrongType(std::string_view key, const Json& found, const std::string& expected) const {
        std::string shown = found.dump();
        if (shown.size() > 40) {
            shown = shown.substr(0, 37) + "...";
        }
        fail(key, "is " + shown + ", must be " + expected);
    }

    static bool fromHex(const std::string& text, uint64_t& value) {
        if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) {
            return false;
        }
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data() + 2, end, value, 16);
        return error == std::errc() && stop == end;
    }

    const Json& json_;
    std::string where_;
    std::string name_;
    std::vector<std::string_view> asked_;
};

constexpr double anyCount = 1e6;  // and as large in physical units

// `files`: whether those that the scenario names are read too.
Waveform readWaveform(Section& section, const std::string& folder, bool files) {
    Waveform waveform;
    section.read("kind", waveform.kind, waveformKinds);
    section.read("frequencyHz", waveform.frequencyHz, 0.0, 1e9);
    // Bare numbers are physical unless the unit says otherwise; nothing at all is the default signal in counts.
    const bool bare = section.has("amplitude") || section.has("offset");
    const bool counts = section.has("amplitudeCounts") || section.has("offsetCounts");
    if (bare && waveform.kind != WaveformKind::Counter) {
        waveform.unit = WaveformUnit::Physical;
    }
    section.read("unit", waveform.unit, waveformUnits);
    if (waveform.unit == WaveformUnit::Physical) {
        if (waveform.kind == WaveformKind::Counter) {
            section.fail("unit", "is \"physical\", but a counter has counts");
        }
        waveform.amplitude = 1.0;
    }
    if (counts && (bare || waveform.unit == WaveformUnit::Physical)) {
        section.fail(section.has("amplitudeCounts") ? "amplitudeCounts" : "offsetCounts",
                     "goes neither with amplitude and offset nor with unit physical");
    }
    section.read("amplitude", waveform.amplitude, -anyCount, anyCount);
    section.read("offset", waveform.offset, -anyCount, anyCount);
    section.read("amplitudeCounts", waveform.amplitude, -anyCount, anyCount);
    section.read("offsetCounts", waveform.offset, -anyCount, anyCount);
    section.read("phaseRadians", waveform.phaseRadians, -1e6, 1e6);
    section.read("file", waveform.file);
    if (waveform.kind == WaveformKind::Wav) {
        if (waveform.file.empty()) {
            section.fail("file", "is missing; kind wav needs it");
        }
        if (waveform.file.front() != '/') {
            waveform.file = (std::filesystem::path(folder) / waveform.file).lexically_normal().string();
        }
        if (files) {
            try {
                readWavFile(waveform.file);
            } catch (const std::exception& error) {
                section.fail("file", error.what());
            }
        }
    } else if (!waveform.file.empty()) {
        section.fail("file", "goes with kind wav only");
    }
    return waveform;
}

ModuleScenario readModule(Section& section, const std::string& folder, bool files) {
    ModuleScenario module;
    section.require("slot");
    section.readInteger("slot", module.slot, 0, 7);
    section.read("amplifier", module.kind, amplifierKinds);
    section.readInteger("serial", module.serial, 0, std::numeric_limits<uint64_t>::max());
    section.read("sensor", module.sensor, sensors);
    section.read("tedsChip", module.tedsChip);
    section.readSection("waveform", [&](Section& inner) { module.waveform = readWaveform(inner, folder, files); });
    return module;
}

void readShifts(Section& section, std::string_view key, std::vector<ReferenceScenario::Shift>& shifts) {
    section.readList(key, [&](Section& inner) {
        ReferenceScenario::Shift shift{};
        inner.require("at");
        inner.read("at", shift.at, 0.0, 1e9);
        inner.require("byMicroseconds");
        inner.read("byMicroseconds", shift.byMicroseconds, -1e12, 1e12);
        shifts.push_back(shift);
    });
}

void readReference(Section& section, std::string_view key, ReferenceScenario& reference) {
    section.readSection(key, [&](Section& inner) {
        inner.read("present", reference.present);
        inner.read("offsetSeconds", reference.offsetSeconds, -0.5, 0.5);
        inner.read("jitterNs", reference.jitterNs, 0.0, 1e6);
        inner.read("wanderNs", reference.wanderNs, 0.0, 1e6);
        inner.readList("outages", [&](Section& span) {
            ReferenceScenario::Outage outage{};
            span.require("from");
            span.read("from", outage.from, 0.0, 1e9);
            span.require("until");
            span.read("until", outage.until, outage.from, 1e9);
            reference.outages.push_back(outage);
        });
        readShifts(inner, "steps", reference.steps);
        readShifts(inner, "spikes", reference.spikes);
    });
}

void readOscillator(Section& section, OscillatorScenario& oscillator) {
    section.readInteger("word", oscillator.word, 0, 1023);
    section.read("slope", oscillator.slope, 0.1, 5.0);
    section.read("bendPpm", oscillator.bendPpm, -100.0, 100.0);
    section.read("driftPpmPerHour", oscillator.driftPpmPerHour, -100.0, 100.0);
    section.read("temperaturePpm", oscillator.temperaturePpm, 0.0, 100.0);
    section.read("temperaturePeriodSeconds", oscillator.temperaturePeriodSeconds, 1.0, 1e6);
    section.read("noisePpb", oscillator.noisePpb, 0.0, 1e5);
}

Json shiftsJson(const std::vector<ReferenceScenario::Shift>& shifts) {
    Json list = Json::array();
    for (const ReferenceScenario::Shift& shift : shifts) {
        list.push_back({{"at", shift.at}, {"byMicroseconds", shift.byMicroseconds}});
    }
    return list;
}

Json referenceJson(const ReferenceScenario& reference) {
    Json outages = Json::array();
    for (const ReferenceScenario::Outage& outage : reference.outages) {
        outages.push_back({{"from", outage.from}, {"until", outage.until}});
    }
    return {{"present", reference.present},          {"offsetSeconds", reference.offsetSeconds},
            {"jitterNs", reference.jitterNs},        {"wanderNs", reference.wanderNs},
            {"outages", std::move(outages)},         {"steps", shiftsJson(reference.steps)},
            {"spikes", shiftsJson(reference.spikes)}};
}

Fault readFault(Section& section) {
    constexpr int64_t lowest = std::numeric_limits<int>::min();
    constexpr uint64_t highest = std::numeric_limits<int>::max();
    Fault fault;
    section.require("kind");
    section.read("kind", fault.kind, faultKinds);
    const auto numbers = std::find_if(faultNumbers.begin(), faultNumbers.end(),
                                      [&](const FaultNumbers& each) { return each.kind == fault.kind; });
    const int targets = numbers != faultNumbers.end() ? numbers->targets : 0;
    const uint32_t codes = numbers != faultNumbers.end() ? numbers->codes : 0;
    section.readInteger("target", fault.target, -1, canTargets - 1);
    if (fault.target >= targets) {
        section.fail("target", "is " + std::to_string(fault.target) + ", " +
                                   (targets == 0 ? "but this kind has none"
                                                 : "must be from -1 to " + std::to_string(targets - 1)));
    }
    // An ioctl's number as the driver sees it may have its top bit set, and so be negative in an int.
    int64_t code = 0;
    section.readInteger("code", code, codes > highest ? lowest : 0, std::numeric_limits<uint32_t>::max());
    if (code > static_cast<int64_t>(codes)) {
        section.fail("code",
                     "is " + std::to_string(code) + ", " +
                         (codes == 0 ? "but this kind has none" : "must be from 0 to " + std::to_string(codes)));
    }
    fault.code = static_cast<int>(static_cast<uint32_t>(code));
    section.read("atSeconds", fault.atSeconds, 0.0, 1e9);
    section.read("untilSeconds", fault.untilSeconds, 0.0, 1e9);
    if (fault.untilSeconds > 0.0 && fault.untilSeconds <= fault.atSeconds) {
        section.fail("untilSeconds", "is " + number(fault.untilSeconds) + ", must be 0 (no end) or after atSeconds");
    }
    section.readInteger("afterCount", fault.afterCount, 0, std::numeric_limits<uint64_t>::max());
    section.readInteger("command", fault.command, 0, 255);
    const bool ofAmplifier = fault.kind >= FaultKind::AmplifierSilent && fault.kind <= FaultKind::AmplifierNan;
    if (fault.command != 0 && !ofAmplifier) {
        section.fail("command", "is " + std::to_string(fault.command) + ", but this kind has none");
    }
    section.readInteger("times", fault.times, -1, highest);
    if (fault.times == 0) {
        section.fail("times", "is 0, must be -1 (all that follow) or at least 1");
    }
    return fault;
}

PtpScenario readPtp(Section& section) {
    PtpScenario ptp;
    section.readInteger("clockIdentity", ptp.clockIdentity, 0, std::numeric_limits<uint64_t>::max());
    section.readInteger("grandmaster", ptp.grandmaster, 0, std::numeric_limits<uint64_t>::max());
    section.read("masterPresent", ptp.masterPresent);
    section.read("linkUp", ptp.linkUp);
    section.readInteger("offsetNs", ptp.offsetNs, -1'000'000'000, 1'000'000'000);
    section.read("pathDelayNs", ptp.pathDelayNs, 0.0, 1e9);
    return ptp;
}

// Bytes as text, two hexadecimal digits each.
void readBytes(Section& section, std::string_view key, CanFrame& frame) {
    std::string text;
    section.read(key, text);
    const bool digits = text.find_first_not_of("0123456789abcdefABCDEF") == text.npos;
    if (!digits || text.size() > 16 || text.size() % 2 != 0) {
        section.fail(key, "is \"" + text + "\", must be 0 to 8 bytes, two hexadecimal digits each");
    }
    frame.length = static_cast<uint8_t>(text.size() / 2);
    for (size_t i = 0; i < frame.length; ++i) {
        std::from_chars(text.data() + 2 * i, text.data() + 2 * i + 2, frame.data[i], 16);
    }
}

CanCyclicScenario readCyclic(Section& section) {
    CanCyclicScenario row;
    section.require("id");
    bool extended = false;
    section.read("extended", extended);
    section.readInteger("id", row.frame.id, 0, extended ? 0x1FFFFFFF : 0x7FF);
    row.frame.id |= extended ? CanFrame::extended : 0;
    readBytes(section, "data", row.frame);
    bool remote = false;
    section.read("remote", remote);
    if (remote && row.frame.length != 0) {
        section.fail("data", "goes with no remote frame");
    }
    row.frame.id |= remote ? CanFrame::remote : 0;
    section.readInteger("length", row.frame.length, remote ? 0 : row.frame.length, remote ? 8 : row.frame.length);
    section.read("periodSeconds", row.periodSeconds, 1e-6, 1e6);
    section.read("firstSeconds", row.firstSeconds, 0.0, 1e9);
    section.readInteger("count", row.count, 0, std::numeric_limits<uint32_t>::max());
    section.read("counter", row.counter);
    if (row.counter && (remote || row.frame.length < 4)) {
        section.fail("counter", "is true, but there are not four bytes of data");
    }
    return row;
}

CanLogScenario readLog(Section& section, const std::string& folder, bool files) {
    CanLogScenario log;
    section.require("file");
    section.read("file", log.file);
    section.read("interface", log.interface);
    section.read("atSeconds", log.atSeconds, 0.0, 1e9);
    section.read("repeat", log.repeat);
    if (log.file.empty()) {
        section.fail("file", "is empty");
    }
    if (log.file.front() != '/') {
        log.file = (std::filesystem::path(folder) / log.file).lexically_normal().string();
    }
    if (files) {
        CanLog::read(log.file);
    }
    return log;
}

CanInterfaceScenario readInterface(Section& section, const std::vector<CanInterfaceScenario>& others) {
    CanInterfaceScenario interface;
    section.require("name");
    section.read("name", interface.name);
    const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    if (interface.name.empty() || interface.name.size() > 15 ||
        interface.name.find_first_not_of(letters) != interface.name.npos) {
        section.fail("name", "is \"" + interface.name + "\", must be 1 to 15 letters, digits, \"_\" or \"-\"");
    }
    for (const CanInterfaceScenario& other : others) {
        if (other.name == interface.name) {
            section.fail("name", "is \"" + interface.name + "\", which another interface has already");
        }
    }
    interface.bus = static_cast<int>(others.size());
    section.readInteger("bus", interface.bus, 0, canTargets - 1);
    section.read("present", interface.present);
    section.read("starts", interface.starts);
    section.read("virtual", interface.virtualDevice);
    return interface;
}

CanScenario readCan(Section& section, const std::string& folder, bool files) {
    CanScenario can;
    if (section.has("interfaces")) {
        can.interfaces.emplace();
    }
    section.readList("interfaces", [&](Section& inner) {
        if (can.interfaces->size() == static_cast<size_t>(canTargets)) {
            inner.fail("name", "is that of one interface more than " + std::to_string(canTargets));
        }
        can.interfaces->push_back(readInterface(inner, *can.interfaces));
    });
    section.readList("buses", [&](Section& inner) {
        CanBusScenario bus;
        inner.readInteger("bitrate", bus.bitrate, 5'000, 1'000'000);
        inner.read("acknowledged", bus.acknowledged);
        inner.readList("cyclic", [&](Section& row) { bus.cyclic.push_back(readCyclic(row)); });
        inner.readSection("log", [&](Section& log) { bus.log = readLog(log, folder, files); });
        can.buses.push_back(std::move(bus));
    });
    section.read("stampsFromStart", can.stampsFromStart);
    section.read("kernel", can.kernel);
    return can;
}

ThermalScenario readThermals(Section& section) {
    ThermalScenario thermals;
    section.read("sensors", thermals.sensors, sensorFamilies);
    section.read("ambientCelsius", thermals.ambientCelsius, -55.0, 100.0);
    section.read("timeConstantSeconds", thermals.timeConstantSeconds, 0.001, 1e6);
    section.read("cableSensor", thermals.cableSensor);
    section.read("cableCelsius", thermals.cableCelsius, -200.0, 850.0);
    section.read("cableLines", thermals.cableLines);
    section.read("cable1", thermals.cable1);
    section.read("cable2", thermals.cable2);
    return thermals;
}

Json canJson(const CanScenario& can) {
    Json json = Json::object();
    if (can.interfaces) {
        json["interfaces"] = Json::array();
        for (const CanInterfaceScenario& interface : *can.interfaces) {
            json["interfaces"].push_back({{"name", interface.name},
                                          {"bus", interface.bus},
                                          {"present", interface.present},
                                          {"starts", interface.starts},
                                          {"virtual", interface.virtualDevice}});
        }
    }
    json["buses"] = Json::array();
    for (const CanBusScenario& bus : can.buses) {
        Json item = {{"bitrate", bus.bitrate}, {"acknowledged", bus.acknowledged}};
        item["cyclic"] = Json::array();
        for (const CanCyclicScenario& row : bus.cyclic) {
            const CanFrame& frame = row.frame;
            std::string data;
            for (size_t i = 0; i < frame.length && !frame.isRemote(); ++i) {
                data += hex(frame.data[i], 2).substr(2);
            }
            item["cyclic"].push_back({{"id", hex(frame.id & 0x1FFFFFFF, frame.isExtended() ? 8 : 3)},
                                      {"extended", frame.isExtended()},
                                      {"data", data},
                                      {"remote", frame.isRemote()},
                                      {"length", frame.length},
                                      {"periodSeconds", row.periodSeconds},
                                      {"firstSeconds", row.firstSeconds},
                                      {"count", row.count},
                                      {"counter", row.counter}});
        }
        if (!bus.log.file.empty()) {
            item["log"] = {{"file", bus.log.file},
                           {"interface", bus.log.interface},
                           {"atSeconds", bus.log.atSeconds},
                           {"repeat", bus.log.repeat}};
        }
        json["buses"].push_back(std::move(item));
    }
    json["stampsFromStart"] = can.stampsFromStart;
    json["kernel"] = can.kernel;
    return json;
}

Scenario readScenario(const Json& json, const std::string& name, const std::string& folder, bool files) {
    Section section(json, "", name);
    Scenario scenario;
    section.readInteger("boardType", scenario.boardType, 0, 255);
    section.readInteger("slots", scenario.slots, 0, 255);
    section.readInteger("serialNumber", scenario.serialNumber, 0, std::numeric_limits<uint64_t>::max());
    section.readInteger("hardwareVersion", scenario.hardwareVersion, 0, std::numeric_limits<uint32_t>::max());
    section.readInteger("canPorts", scenario.canPorts, 0, std::numeric_limits<uint16_t>::max());
    section.read("eepromKeyValid", scenario.eepromKeyValid);
    section.readInteger("eepromVersion", scenario.eepromVersion, 0, 255);
    section.read("supplyOn", scenario.supplyOn);
    section.readSection("pll", [&](Section& inner) {
        inner.readInteger("selection", scenario.pll.selection, 0, 3);
        inner.read("lock0", scenario.pll.lock0);
        inner.read("lock1", scenario.pll.lock1);
    });
    section.readList("modules", [&](Section& inner) {
        const ModuleScenario module = readModule(inner, folder, files);
        if (scenario.boardType == 1 && module.slot > 1) {
            inner.fail("slot", "is " + std::to_string(module.slot) + ", but a board of type 1 has slots 0 and 1");
        }
        for (const ModuleScenario& other : scenario.modules) {
            if (other.slot == module.slot) {
                inner.fail("slot", "is " + std::to_string(module.slot) + ", where a module stands already");
            }
        }
        scenario.modules.push_back(module);
    });
    section.readList("faults", [&](Section& inner) { scenario.faults.push_back(readFault(inner)); });
    section.read("timeFactor", scenario.timeFactor, 0.001, 1000.0);
    section.read("unthrottled", scenario.unthrottled);
    section.read("oscillatorErrorPpm", scenario.oscillatorErrorPpm, -1000.0, 1000.0);
    section.readSection("oscillator", [&](Section& inner) { readOscillator(inner, scenario.oscillator); });
    readReference(section, "irig", scenario.irig);
    readReference(section, "pps", scenario.pps);
    readReference(section, "ptpPulse", scenario.ptpPulse);
    section.read("realtimeAtStart", scenario.realtimeAtStart, 0.0, 4e9);
    readShifts(section, "realtimeSteps", scenario.realtimeSteps);
    section.readInteger("seed", scenario.seed, 0, std::numeric_limits<uint64_t>::max());
    section.readSection("ptp", [&](Section& inner) { scenario.ptp = readPtp(inner); });
    section.readSection("can", [&](Section& inner) { scenario.can = readCan(inner, folder, files); });
    section.readSection("thermals", [&](Section& inner) { scenario.thermals = readThermals(inner); });
    section.finish();
    return scenario;
}

// JSON lets a key stand twice in an object and takes the last one: in a file written by hand that is a mistake.
class RepeatedKeys {
public:
    explicit RepeatedKeys(std::string name) : name_(std::move(name)) {}

    bool operator()(int, Json::parse_event_t event, const Json& parsed) {
        if (event == Json::parse_event_t::object_start) {
            open_.emplace_back();
        } else if (event == Json::parse_event_t::object_end) {
            open_.pop_back();
        } else if (event == Json::parse_event_t::key && !open_.back().insert(parsed.get<std::string>()).second) {
            throw ScenarioError(name_ + ": " + parsed.get<std::string>() + ": stands twice in the same object");
        }
        return true;
    }

private:
    std::string name_;
    std::vector<std::set<std::string>> open_;
};

Scenario parseText(const std::string& text, const std::string& name, const std::string& folder, bool files) {
    Json json;
    try {
        RepeatedKeys repeated(name);
        json = Json::parse(text, std::ref(repeated));
    } catch (const Json::exception& error) {
        // "[json.exception.parse_error.101] parse error at line 3, column 5: ...": the place and the reason are ours.
        const std::string what = error.what();
        const size_t end = what.find("] ");
        throw ScenarioError(name + ": " + (end != what.npos ? what.substr(end + 2) : what));
    }
    return readScenario(json, name, folder, files);
}

}  // namespace

Scenario ScenarioJson::parse(const std::string& text, const std::string& name, const std::string& folder) {
    return parseText(text, name, folder, false);
}

Scenario ScenarioJson::read(const std::string& file) {
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored)) {
        throw ScenarioError(file + ": is a folder, must be a scenario file");
    }
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    if (stream) {
        text << stream.rdbuf();
    }
    if (!stream) {
        throw ScenarioError(file + ": cannot be read: " + std::strerror(errno != 0 ? errno : EIO));
    }
    const std::string folder = std::filesystem::path(file).parent_path().string();
    return parseText(text.str(), file, folder.empty() ? "." : folder, true);
}

std::string ScenarioJson::write(const Scenario& scenario) {
    Json json;
    json["boardType"] = scenario.boardType;
    json["slots"] = scenario.slots;
    json["serialNumber"] = hex(scenario.serialNumber, 16);
    json["hardwareVersion"] = hex(scenario.hardwareVersion, 8);
    json["canPorts"] = hex(scenario.canPorts, 4);
    json["eepromKeyValid"] = scenario.eepromKeyValid;
    json["eepromVersion"] = scenario.eepromVersion;
    json["supplyOn"] = scenario.supplyOn;
    json["pll"] = {{"selection", scenario.pll.selection}, {"lock0", scenario.pll.lock0}, {"lock1", scenario.pll.lock1}};
    json["timeFactor"] = scenario.timeFactor;
    json["unthrottled"] = scenario.unthrottled;
    json["oscillatorErrorPpm"] = scenario.oscillatorErrorPpm;
    json["oscillator"] = {{"word", scenario.oscillator.word},
                          {"slope", scenario.oscillator.slope},
                          {"bendPpm", scenario.oscillator.bendPpm},
                          {"driftPpmPerHour", scenario.oscillator.driftPpmPerHour},
                          {"temperaturePpm", scenario.oscillator.temperaturePpm},
                          {"temperaturePeriodSeconds", scenario.oscillator.temperaturePeriodSeconds},
                          {"noisePpb", scenario.oscillator.noisePpb}};
    json["irig"] = referenceJson(scenario.irig);
    json["pps"] = referenceJson(scenario.pps);
    json["ptpPulse"] = referenceJson(scenario.ptpPulse);
    json["realtimeAtStart"] = scenario.realtimeAtStart;
    json["realtimeSteps"] = shiftsJson(scenario.realtimeSteps);
    json["seed"] = scenario.seed;
    json["ptp"] = {{"clockIdentity", hex(scenario.ptp.clockIdentity, 16)},
                   {"grandmaster", hex(scenario.ptp.grandmaster, 16)},
                   {"masterPresent", scenario.ptp.masterPresent},
                   {"linkUp", scenario.ptp.linkUp},
                   {"offsetNs", scenario.ptp.offsetNs},
                   {"pathDelayNs", scenario.ptp.pathDelayNs}};
    json["can"] = canJson(scenario.can);
    const ThermalScenario& thermals = scenario.thermals;
    json["thermals"] = {{"sensors", nameOf(sensorFamilies, thermals.sensors)},
                        {"ambientCelsius", thermals.ambientCelsius},
                        {"timeConstantSeconds", thermals.timeConstantSeconds},
                        {"cableSensor", thermals.cableSensor},
                        {"cableCelsius", thermals.cableCelsius},
                        {"cableLines", thermals.cableLines},
                        {"cable1", thermals.cable1},
                        {"cable2", thermals.cable2}};
    json["modules"] = Json::array();
    for (const ModuleScenario& module : scenario.modules) {
        Json waveform;
        waveform["kind"] = nameOf(waveformKinds, module.waveform.kind);
        waveform["frequencyHz"] = module.waveform.frequencyHz;
        waveform["unit"] =
            module.waveform.kind == WaveformKind::Counter ? "counts" : nameOf(waveformUnits, module.waveform.unit);
        waveform["amplitude"] = module.waveform.amplitude;
        waveform["offset"] = module.waveform.offset;
        waveform["phaseRadians"] = module.waveform.phaseRadians;
        if (module.waveform.kind == WaveformKind::Wav) {
            waveform["file"] = module.waveform.file;
        }
        Json item;
        item["slot"] = module.slot;
        item["amplifier"] = nameOf(amplifierKinds, module.kind);
        item["serial"] = module.serial;
        item["sensor"] = nameOf(sensors, module.sensor);
        item["tedsChip"] = module.tedsChip;
        item["waveform"] = std::move(waveform);
        json["modules"].push_back(std::move(item));
    }
    json["faults"] = Json::array();
    for (const Fault& fault : scenario.faults) {
        Json item;
        item["kind"] = nameOf(faultKinds, fault.kind);
        item["target"] = fault.target;
        item["code"] = fault.code;
        item["atSeconds"] = fault.atSeconds;
        item["untilSeconds"] = fault.untilSeconds;
        item["afterCount"] = fault.afterCount;
        item["times"] = fault.times;
        item["command"] = fault.command;
        json["faults"].push_back(std::move(item));
    }
    return json.dump(2) + "\n";
}

}  // namespace kestrixsim
