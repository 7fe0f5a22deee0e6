#include "tools/zornhost/ClockReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "tools/zornhost/Output.h"

namespace zornhost {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::array<std::pair<Lock, const char*>, 4> lockTexts{{{Lock::FreeRunning, "free-running"},
                                                                 {Lock::NotLocked, "not locked"},
                                                                 {Lock::Locked, "locked"},
                                                                 {Lock::Holding, "holding"}}};
constexpr int64_t minuteUs = 60000000;
constexpr size_t pulsesInMinute = 60;
constexpr int64_t secondUs = 1000000;
// Worst mean drift of an oscillator that is held for up to an hour.
constexpr double holdingDriftPpb = 350.0;

std::string duration(int64_t microseconds) {
    const auto seconds = static_cast<double>(std::max<int64_t>(microseconds, 0)) / 1e6;
    if (seconds < 120.0) {
        return fmt::format("{:.1f} s", seconds);
    }
    const auto minutes = static_cast<int64_t>(seconds / 60.0);
    return minutes < 120 ? fmt::format("{} min", minutes) : fmt::format("{} h {} min", minutes / 60, minutes % 60);
}

// The name of a state, or why there is none: reasons are in small letters.
std::string portText(const std::string& port) {
    if (port.empty()) {
        return "not known yet";
    }
    return std::islower(static_cast<unsigned char>(port.front())) != 0
               ? fmt::format("the PTP daemon gives no answer ({})", port)
               : port;
}

// "-35 ns", "12.4 us", "203 ms".
std::string time(double ns) {
    const double magnitude = std::fabs(ns);
    if (magnitude < 9999.5) {
        return fmt::format("{:.0f} ns", ns);
    }
    return magnitude < 9999.5e3 ? fmt::format("{:.1f} us", ns / 1e3) : fmt::format("{:.1f} ms", ns / 1e6);
}

}  // namespace

const char* lockText(Lock lock) {
    for (const auto& [value, text] : lockTexts) {
        if (value == lock) {
            return text;
        }
    }
    return "not locked";
}

Lock lockFromText(const std::string& text) {
    for (const auto& [value, name] : lockTexts) {
        if (text == name) {
            return value;
        }
    }
    return Lock::NotLocked;
}

std::string ClockReport::obstacle() const {
    if (lock == Lock::FreeRunning || lock == Lock::Locked) {
        return {};
    }
    if (!failure.empty()) {
        return failure;
    }
    if (last.pulse == 0) {
        return "no pulse has come of the timing device";
    }
    // Before a run everything is an error still.
    if (error && (tracking || acquisitionTimeS >= 0.0)) {
        return tracking ? "the frequency is locked, the phase comes with the next start"
                        : "the phase is out of reach: it takes a new start";
    }
    // Only a clock that follows PTP goes by it.
    if (mode.starts_with("PTP") && ptpPort != "SLAVE" && ptpPort != "MASTER") {
        return "the PTP port: " + portText(ptpPort);
    }
    return last.steered ? "the frequency is being pulled in" : "the reference is away";
}

ClockFigures figuresOf(const std::deque<ClockRow>& rows) {
    ClockFigures figures;
    double squares = 0.0;
    // By count as well: the clock that the times are of may be set.
    const size_t most = std::min(rows.size(), pulsesInMinute);
    for (auto row = rows.rbegin(); row != rows.rbegin() + static_cast<std::ptrdiff_t>(most); ++row) {
        if (row->timeUs <= rows.back().timeUs - minuteUs) {
            break;
        }
        if (row->lock != Lock::Locked || !row->steered) {
            continue;
        }
        ++figures.pulses;
        figures.meanNs += row->phaseErrorNs;
        figures.meanPpb += row->frequencyErrorPpb;
        figures.largestNs = std::max(figures.largestNs, std::fabs(row->phaseErrorNs));
        squares += row->phaseErrorNs * row->phaseErrorNs;
    }
    if (figures.pulses > 0) {
        const auto count = static_cast<double>(figures.pulses);
        figures.meanNs /= count;
        figures.meanPpb /= count;
        figures.rmsNs = std::sqrt(squares / count);
    }
    return figures;
}

double errorBoundNs(const ClockFigures& figures, int64_t sinceSteeredUs) {
    // Up to the next pulse the last figures hold.
    const auto aloneS = static_cast<double>(std::max<int64_t>(sinceSteeredUs - 2 * secondUs, 0)) / 1e6;
    return figures.largestNs + aloneS * holdingDriftPpb;
}

Json toJson(const ClockRow& row) {
    return Json::array({row.pulse, row.timeUs, row.steered, lockText(row.lock), row.phaseErrorNs, row.frequencyErrorPpb,
                        row.controlWord, row.equilibrium});
}

ClockRow clockRowFromJson(const Json& json) {
    return {json.at(0), json.at(1), json.at(2), lockFromText(json.at(3)),
            json.at(4), json.at(5), json.at(6), json.at(7)};
}

Json toJson(const ClockReport& report) {
    Json json{{"mode", report.mode},
              {"lock", lockText(report.lock)},
              {"lockSinceUs", report.lockSinceUs},
              {"tracking", report.tracking},
              {"error", report.error},
              {"lastPulse",
               {{"number", report.last.pulse},
                {"timeUs", report.last.timeUs},
                {"steered", report.last.steered},
                {"phaseErrorNs", report.last.steered ? Json(report.last.phaseErrorNs) : Json()},
                {"frequencyErrorPpb", report.last.steered ? Json(report.last.frequencyErrorPpb) : Json()},
                {"controlWord", report.last.controlWord},
                {"equilibrium", report.last.equilibrium}}},
              {"missedPulses", report.missedPulses},
              {"lastMinute",
               {{"pulses", report.figures.pulses},
                {"meanNs", report.figures.meanNs},
                {"rmsNs", report.figures.rmsNs},
                {"largestNs", report.figures.largestNs},
                {"frequencyOffsetPpb", report.figures.meanPpb}}},
              {"errorBoundNs", report.errorBoundNs ? Json(*report.errorBoundNs) : Json()},
              {"absTimeUs", report.absTimeUs},
              {"acquisitionTimeS", report.acquisitionTimeS},
              {"ptpPort", report.ptpPort},
              {"ptpClock", report.ptpClock},
              {"ptpGrandmaster", report.ptpGrandmaster},
              {"failure", report.failure},
              {"obstacle", report.obstacle()}};
    return json;
}

ClockReport clockReportFromJson(const Json& json) {
    try {
        const Json& pulse = json.at("lastPulse");
        const Json& minute = json.at("lastMinute");
        const Json& bound = json.at("errorBoundNs");
        ClockReport report;
        report.mode = json.at("mode");
        report.lock = lockFromText(json.at("lock"));
        report.lockSinceUs = json.at("lockSinceUs");
        report.tracking = json.at("tracking");
        report.error = json.at("error");
        const auto number = [](const Json& value) { return value.is_null() ? 0.0 : value.get<double>(); };
        report.last = {pulse.at("number"),
                       pulse.at("timeUs"),
                       pulse.at("steered"),
                       report.lock,
                       number(pulse.at("phaseErrorNs")),
                       number(pulse.at("frequencyErrorPpb")),
                       pulse.at("controlWord"),
                       pulse.at("equilibrium")};
        report.missedPulses = json.at("missedPulses");
        report.figures = {minute.at("pulses"), minute.at("meanNs"), minute.at("rmsNs"), minute.at("largestNs"),
                          minute.at("frequencyOffsetPpb")};
        report.errorBoundNs = bound.is_null() ? std::nullopt : std::optional<double>(bound);
        report.absTimeUs = json.at("absTimeUs");
        report.acquisitionTimeS = json.at("acquisitionTimeS");
        report.ptpPort = json.at("ptpPort");
        report.ptpClock = json.at("ptpClock");
        report.ptpGrandmaster = json.at("ptpGrandmaster");
        report.failure = json.at("failure");
        return report;
    } catch (const Json::exception& failure) {
        throw std::runtime_error(fmt::format("no report of a clock: {}", failure.what()));
    }
}

std::string describe(const ClockReport& report) {
    const bool pulsed = report.last.pulse > 0;
    std::vector<std::vector<std::string>> rows{{"Mode", report.mode}};
    std::string lock = lockText(report.lock);
    if (report.lockSinceUs > 0 && report.absTimeUs > 0) {
        lock +=
            fmt::format(" since {} ({})", isoTime(report.lockSinceUs), duration(report.absTimeUs - report.lockSinceUs));
    }
    if (const std::string obstacle = report.obstacle(); !obstacle.empty()) {
        lock += ": " + obstacle;
    }
    rows.push_back({"Lock", lock});
    if (!report.followsNothing()) {
        rows.push_back({"Reference", !pulsed               ? "not seen"
                                     : report.last.steered ? "there"
                                                           : "away, or not good enough to steer by"});
    }
    if (pulsed && report.last.steered) {
        std::string phase = time(report.last.phaseErrorNs) + " at the last pulse";
        if (report.absTimeUs > 0) {
            phase += fmt::format(", {} ago", duration(report.absTimeUs - report.last.timeUs));
        }
        rows.push_back({"Phase error", phase});
    }
    const ClockFigures& figures = report.figures;
    if (figures.pulses > 0) {
        rows.push_back({"Last minute", fmt::format("mean {}, RMS {}, largest {} ({} pulses)", time(figures.meanNs),
                                                   time(figures.rmsNs), time(figures.largestNs), figures.pulses)});
        rows.push_back({"Frequency offset", fmt::format("{:.1f} ppb", figures.meanPpb)});
    }
    if (!report.followsNothing()) {
        rows.push_back({"Error bound", report.errorBoundNs ? time(*report.errorBoundNs) : "not known"});
    }
    if (pulsed) {
        rows.push_back(
            {"Control word", fmt::format("{}, equilibrium {:.2f}", report.last.controlWord, report.last.equilibrium)});
    }
    rows.push_back({"Absolute time", report.absTimeUs > 0 ? isoTime(report.absTimeUs) : "not known"});
    rows.push_back({"Acquisition time",
                    report.acquisitionTimeS >= 0.0 ? fmt::format("{:.3f} s", report.acquisitionTimeS) : "none runs"});
    if (report.usesPtp()) {
        rows.push_back({"PTP port", portText(report.ptpPort)});
        rows.push_back({"PTP clock", report.ptpClock.empty() ? "not known" : report.ptpClock});
        rows.push_back({"Grandmaster", report.ptpGrandmaster.empty() ? "not known" : report.ptpGrandmaster});
    }
    if (report.missedPulses > 0) {
        rows.push_back({"Not seen", fmt::format("{} pulses: this program came too late", report.missedPulses)});
    }
    return formatTable(rows);
}

std::string csvHead() {
    return "utc,pulse,lock,phase_error_ns,frequency_error_ppb,control_word,equilibrium\n";
}

std::string csvRow(const ClockRow& row) {
    return fmt::format("{},{},{},{},{},{},{:.3f}\n", isoTime(row.timeUs), row.pulse, lockText(row.lock),
                       row.steered ? fmt::format("{:.1f}", row.phaseErrorNs) : "",
                       row.steered ? fmt::format("{:.2f}", row.frequencyErrorPpb) : "", row.controlWord,
                       row.equilibrium);
}

}  // namespace zornhost
