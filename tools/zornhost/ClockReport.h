#pragma once

#include <cstdint>
#include <deque>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace zornhost {

// How the sampling clock stands to what it follows.
enum class Lock {
    FreeRunning,  // it follows nothing
    NotLocked,    // it is not where its reference is, or nobody knows
    Locked,
    Holding,  // it was locked and keeps its frequency while the reference is away
};

const char* lockText(Lock lock);             // "free-running", "not locked", "locked", "holding"
Lock lockFromText(const std::string& text);  // NotLocked for what is no such text

// One pulse.
struct ClockRow {
    uint64_t pulse = 0;  // number since the instrument was opened
    int64_t timeUs = 0;  // since the Unix epoch
    bool steered = false;
    Lock lock = Lock::NotLocked;
    double phaseErrorNs = 0.0;
    double frequencyErrorPpb = 0.0;
    int controlWord = 0;
    double equilibrium = 0.0;
};

// The lock became another, or is as it was found.
struct ClockChange {
    int64_t timeUs = 0;  // since the Unix epoch
    Lock lock = Lock::NotLocked;
    bool tracking = false;
    bool error = false;
    double phaseErrorNs = 0.0;  // at the last pulse; not a number when that was not the reference's
};

// Over the pulses of the last minute in which the clock was locked.
struct ClockFigures {
    size_t pulses = 0;
    double meanNs = 0.0;
    double rmsNs = 0.0;
    double largestNs = 0.0;  // without sign
    double meanPpb = 0.0;    // of the frequency
};

// All that is known at one moment.
struct ClockReport {
    std::string mode;  // "PPS", "IRIG in, PTP out"
    Lock lock = Lock::NotLocked;
    int64_t lockSinceUs = 0;
    bool tracking = false;
    bool error = false;
    ClockRow last;
    uint64_t missedPulses = 0;  // that nobody has seen here
    ClockFigures figures;
    std::optional<double> errorBoundNs;  // none while nobody can tell
    int64_t absTimeUs = -1;              // as the instrument has it
    double acquisitionTimeS = -1.0;      // -1: none runs
    std::string ptpPort;
    std::string ptpClock;
    std::string ptpGrandmaster;
    std::string failure;  // why nothing newer is known

    bool usesPtp() const { return mode.find("PTP") != std::string::npos; }
    bool followsNothing() const { return lock == Lock::FreeRunning; }
    // What stands in the way of the lock, and what helps; empty when nothing does.
    std::string obstacle() const;
};

// Figures over rows that lie up to a minute before the last one, and were locked.
ClockFigures figuresOf(const std::deque<ClockRow>& rows);

// What the phase error can have become: the largest one of the last minute, and with each second since the last pulse
// that steered what an oscillator drifts on its own.
double errorBoundNs(const ClockFigures& figures, int64_t sinceSteeredUs);

nlohmann::ordered_json toJson(const ClockReport& report);
// Throws std::runtime_error for what is no such report.
ClockReport clockReportFromJson(const nlohmann::ordered_json& json);
nlohmann::ordered_json toJson(const ClockRow& row);
ClockRow clockRowFromJson(const nlohmann::ordered_json& json);

// For people: a table of two columns.
std::string describe(const ClockReport& report);

// Head and rows of the history as comma-separated values.
std::string csvHead();
std::string csvRow(const ClockRow& row);

}  // namespace zornhost
