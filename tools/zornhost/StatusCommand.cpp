#include "tools/zornhost/StatusCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tools/zornhost/AmplifierState.h"
#include "tools/zornhost/Elapsed.h"
#include "tools/zornhost/HealthMetrics.h"
#include "tools/zornhost/InstrumentService.h"
#include "tools/zornhost/Interrupt.h"
#include "tools/zornhost/LockedStart.h"
#include "tools/zornhost/PositiveSeconds.h"

namespace zornhost {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

namespace {

// Sensors are read every 2.5 s, the first time that long after the instrument was opened.
constexpr double firstLookS = 3.5;
constexpr int waitStepMs = 100;

void print(const HealthFigures& figures, const HealthLimits& limits, Output& output, bool json, bool live,
           bool explain) {
    const auto verdicts = judge(figures, limits);
    if (json) {
        const Json whole{
            {"state", healthText(worstOf(verdicts))}, {"lines", toJson(verdicts)}, {"figures", toJson(figures)}};
        output.line(whole.dump(live ? -1 : 2, ' ', false, Json::error_handler_t::replace));
        return;
    }
    const std::string head = figures.holder.empty() ? "" : fmt::format("Held by {}\n", figures.holder);
    output.data((live && output.dataIsTerminal() ? "\x1b[H\x1b[J" : "") + head + describe(verdicts, explain) +
                (live ? "\n" : ""));
}

}  // namespace

StatusCommandLine::StatusCommandLine(CLI::App& app) {
    command_ = app.add_subcommand(
        "status",
        "The instrument's health: each line OK, WARN or FAIL. Exit code 1 when one says FAIL. Where another process "
        "holds the instrument it is asked; else all channels are acquired for some seconds");
    command_->add_flag("--live", live_, "Again and again until Ctrl-C, or for the duration");
    command_->add_option("--interval", intervalS_, "Seconds between two reports with --live")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
    command_->add_option("-d,--duration", durationS_, "Seconds to look at it (with --live or --listen)")
        ->check(secondsAbove0());
    command_
        ->add_option("--timeout", timeoutS_,
                     "Seconds to wait for a reference, where no other process holds the instrument")
        ->check(CLI::Range(0.0, 1e6))
        ->capture_default_str();
    command_->add_flag("--explain", explain_, "What each line means, and what to do about it");
    command_->add_option("--thresholds", thresholds_,
                         "JSON file with other limits: {\"processorTemperature\": {\"warn\": 80, \"fail\": 90}}");
    command_->add_option("--listen", listen_,
                         "Serve the figures to Prometheus at this address until Ctrl-C: 127.0.0.1:9100, or a port for "
                         "the loopback alone");
}

HealthLimits StatusCommandLine::limits() const {
    return thresholds_.empty() ? HealthLimits() : HealthLimits::fromFile(thresholds_);
}

int StatusCommandLine::run(Session& session, InstrumentLock* lock, Output& output, bool json) const {
    const HealthLimits limits = this->limits();
    std::vector<ChannelEntry> used;
    for (const auto& entry : session.tree().channels()) {
        entry.channel.setUsed(hasHardware(entry.channel));
        if (entry.channel.getUsed()) {
            used.push_back(entry);
        }
    }
    updateAmplifiers(session.tree(), used);
    session.prepare();
    InstrumentService service(session, lock, output, "");
    LockedStart start(session, service.clock(), output, timeoutS_);
    start.awaitReference();
    start.start();
    service.health().lookAtAmplifiers();
    // What the sensors say is worth waiting for.
    for (const auto begin = Clock::now(); secondsSince(begin) < firstLookS && !Interrupt::sleepMs(waitStepMs);) {
    }
    const int result = watch([&service] { return service.health().figures(); }, limits, output, json);
    session.stop();
    return result;
}

int StatusCommandLine::runOn(const std::string& socket, Output& output, bool json) const {
    const auto ask = [socket] {
        const Json answer = Json::parse(InstrumentSocket::ask(socket, "status"), nullptr, false);
        if (!answer.is_object()) {
            throw std::runtime_error(fmt::format("{}: what is answered there are no figures", socket));
        }
        return healthFiguresFromJson(answer);
    };
    return watch(ask, limits(), output, json);
}

int StatusCommandLine::watch(const Source& source, const HealthLimits& limits, Output& output, bool json) const {
    if (!listen_.empty()) {
        const HealthEndpoint endpoint(listen_, source, limits);
        output.message(fmt::format("zornhost: serving http://{}/metrics", endpoint.address()));
        const auto begin = Clock::now();
        while ((durationS_ <= 0.0 || secondsSince(begin) < durationS_) && !Interrupt::sleepMs(waitStepMs)) {
        }
        return 0;
    }
    const auto begin = Clock::now();
    HealthFigures figures = source();
    while (live_) {
        print(figures, limits, output, json, true, explain_);
        const double nextS = secondsSince(begin) + intervalS_;
        if (!output.good() || (durationS_ > 0.0 && nextS > durationS_) ||
            Interrupt::sleepMs(static_cast<int>(intervalS_ * 1000.0))) {
            break;
        }
        figures = source();
    }
    if (!live_) {
        print(figures, limits, output, json, false, explain_);
    }
    return worstOf(judge(figures, limits)) == Health::Fail ? 1 : 0;
}

}  // namespace zornhost
