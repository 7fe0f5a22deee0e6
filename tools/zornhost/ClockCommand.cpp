#include "tools/zornhost/ClockCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tools/zornhost/ClockPlot.h"
#include "tools/zornhost/ClockWatch.h"
#include "tools/zornhost/Elapsed.h"
#include "tools/zornhost/InstrumentService.h"
#include "tools/zornhost/Interrupt.h"
#include "tools/zornhost/LockedStart.h"
#include "tools/zornhost/PositiveSeconds.h"

namespace zornhost {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int waitStepMs = 200;
constexpr int longestPauseMs = 500;  // between two collections of rows

void print(const ClockReport& report, Output& output, bool json, bool live) {
    if (json) {
        const Json whole = toJson(report);
        output.line(whole.dump(live ? -1 : 2, ' ', false, Json::error_handler_t::replace));
    } else {
        output.data((live && output.dataIsTerminal() ? "\x1b[H\x1b[J" : "") + describe(report) + (live ? "\n" : ""));
    }
}

// The history as it comes.
class CsvFile {
public:
    explicit CsvFile(const std::string& file) : file_(file) {
        if (!file_.empty()) {
            stream_.open(file_, std::ios::trunc);
            stream_ << csvHead();
            check();
        }
    }
    void add(const std::vector<ClockRow>& rows) {
        if (file_.empty() || rows.empty()) {
            return;
        }
        for (const auto& row : rows) {
            stream_ << csvRow(row);
        }
        stream_.flush();
        check();
    }

private:
    void check() {
        if (!stream_.good()) {
            throw std::runtime_error(fmt::format("{}: cannot be written: {}", file_, std::strerror(errno)));
        }
    }

    const std::string file_;
    std::ofstream stream_;
};

}  // namespace

// Where report and history come from.
class ClockCommandLine::Source {
public:
    Source() = default;
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ClockReport report() = 0;
    virtual std::vector<ClockRow> rows(uint64_t behindPulse) = 0;
};

class ClockCommandLine::HeldInstrument : public Source {
public:
    explicit HeldInstrument(const ClockWatch& watch) : watch_(watch) {}
    ClockReport report() override { return watch_.report(); }
    std::vector<ClockRow> rows(uint64_t behindPulse) override { return watch_.rows(behindPulse); }

private:
    const ClockWatch& watch_;
};

class ClockCommandLine::OtherProcess : public Source {
public:
    explicit OtherProcess(std::string socket) : socket_(std::move(socket)) {}
    ClockReport report() override { return clockReportFromJson(ask("clock").at("clock")); }
    std::vector<ClockRow> rows(uint64_t behindPulse) override {
        std::vector<ClockRow> rows;
        const Json answer = ask(fmt::format("clock history {}", behindPulse));
        for (const auto& row : answer.at("rows")) {
            rows.push_back(clockRowFromJson(row));
        }
        return rows;
    }

private:
    Json ask(const std::string& request) const {
        Json json = Json::parse(InstrumentSocket::ask(socket_, request), nullptr, false);
        if (!json.is_object() || !json.contains("clock")) {
            throw std::runtime_error(fmt::format("{}: what is answered there is no report of a clock", socket_));
        }
        return json;
    }

    const std::string socket_;
};

ClockCommandLine::ClockCommandLine(CLI::App& app) {
    command_ = app.add_subcommand(
        "clock", "How the sampling clock stands to its reference: lock, phase error, frequency, time, PTP port");
    command_->add_flag("--live", live_, "Again and again until Ctrl-C, or for the duration");
    command_->add_option("-d,--duration", durationS_, "Seconds to look at it (with --live, --plot or --csv)")
        ->check(secondsAbove0());
    command_->add_option("--interval", intervalS_, "Seconds between two reports with --live")
        ->check(CLI::Range(0.05, 3600.0))
        ->capture_default_str();
    command_
        ->add_option("--plot", plots_,
                     "Draw phase error and control word over time into a .png or .svg file (may "
                     "be repeated)")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command_->add_option("--csv", csv_, "Write a line for each pulse into this file");
    command_
        ->add_option("--timeout", timeoutS_,
                     "Seconds to wait for the lock, where no other process holds the instrument")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
    wait_ =
        command_->add_subcommand("wait", "Wait until the clock is locked: exit code 0 when it is, 1 after the time");
    wait_->add_option("--within", withinNs_, "And the bound of its error is at most so many ns")
        ->check(CLI::Range(1.0, 1e9));
    wait_->add_option("--timeout", timeoutS_, "Seconds to wait at most")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
}

int ClockCommandLine::run(Session& session, InstrumentLock* lock, Output& output, bool json) const {
    std::for_each(plots_.begin(), plots_.end(), checkPlotFile);
    const auto begin = Clock::now();
    // Some channel has to run for the instrument to be started.
    bool used = false;
    for (const auto& entry : session.tree().channels()) {
        const bool wanted = !used && entry.channel.getType() == 0 && hasHardware(entry.channel);
        entry.channel.setUsed(wanted);
        used = used || wanted;
    }
    session.prepare();
    const InstrumentService service(session, lock, output, "clock");
    if (service.clock() == nullptr) {
        throw std::runtime_error("there is no clock to look at");
    }
    if (wait_->parsed() && service.clock()->report().followsNothing()) {
        throw std::runtime_error(
            "the clock follows nothing that could be waited for: choose a reference with --sync (see sync list)");
    }
    HeldInstrument source(*service.clock());
    LockedStart start(session, service.clock(), output, timeoutS_);
    start.awaitReference();
    start.start();
    const int result = runWith(source, begin, output, json);
    session.stop();
    return result;
}

int ClockCommandLine::runOn(const std::string& socket, Output& output, bool json) const {
    std::for_each(plots_.begin(), plots_.end(), checkPlotFile);
    OtherProcess source(socket);
    return runWith(source, Clock::now(), output, json);
}

int ClockCommandLine::runWith(Source& source, Clock::time_point begin, Output& output, bool json) const {
    return wait_->parsed() ? waitForLock(source, begin, output, json) : watch(source, output, json);
}

int ClockCommandLine::waitForLock(Source& source, Clock::time_point begin, Output& output, bool json) const {
    ClockReport report = source.report();
    const auto reached = [&] {
        return report.lock == Lock::Locked &&
               (withinNs_ <= 0.0 || (report.errorBoundNs && *report.errorBoundNs <= withinNs_));
    };
    while (!reached() && !report.followsNothing() && secondsSince(begin) < timeoutS_ &&
           !Interrupt::sleepMs(waitStepMs)) {
        report = source.report();
    }
    print(report, output, json, false);
    if (reached()) {
        return 0;
    }
    std::string reason = report.obstacle();
    if (report.followsNothing()) {
        reason = "it follows nothing";
    } else if (report.lock == Lock::Locked) {
        reason = report.errorBoundNs
                     ? fmt::format("it is locked, with an error of up to {:.0f} ns", *report.errorBoundNs)
                     : "it is locked, with an error that nobody knows yet";
    }
    output.message(fmt::format("zornhost: the clock is not locked{} after {:.0f} s: {}",
                               withinNs_ > 0.0 ? fmt::format(" within {:.0f} ns", withinNs_) : "", secondsSince(begin),
                               reason));
    return 1;
}

int ClockCommandLine::watch(Source& source, Output& output, bool json) const {
    CsvFile csv(csv_);
    std::vector<ClockRow> drawn;
    uint64_t seen = 0;
    const auto collect = [&] {
        const auto fresh = source.rows(seen);
        if (!fresh.empty()) {
            seen = fresh.back().pulse;
            csv.add(fresh);
            if (!plots_.empty()) {
                drawn.insert(drawn.end(), fresh.begin(), fresh.end());
            }
        }
    };
    const bool keeps = !plots_.empty() || !csv_.empty();
    const auto begin = Clock::now();
    double nextReportS = 0.0;
    while (live_ || durationS_ > 0.0) {
        if (live_ && secondsSince(begin) >= nextReportS) {
            print(source.report(), output, json, true);
            nextReportS = std::max(nextReportS + intervalS_, secondsSince(begin));
        }
        if (keeps) {
            collect();
        }
        const double elapsedS = secondsSince(begin);
        if (!output.good() || (durationS_ > 0.0 && elapsedS >= durationS_)) {
            break;
        }
        double pauseS = longestPauseMs / 1000.0;
        if (live_) {
            pauseS = std::min(pauseS, nextReportS - elapsedS);
        }
        if (durationS_ > 0.0) {
            pauseS = std::min(pauseS, durationS_ - elapsedS);
        }
        if (Interrupt::sleepMs(std::max(1, static_cast<int>(1000.0 * pauseS)))) {
            break;
        }
    }
    const ClockReport report = source.report();
    if (keeps) {
        collect();
    }
    if (!live_) {
        print(report, output, json, false);
    }
    for (const auto& file : plots_) {
        drawClockPlot(file, report.mode, drawn);
    }
    return report.lock == Lock::Locked || report.followsNothing() ? 0 : 1;
}

}  // namespace zornhost
