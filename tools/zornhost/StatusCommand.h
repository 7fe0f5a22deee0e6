#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "tools/zornhost/HealthRules.h"
#include "tools/zornhost/InstrumentLock.h"
#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// `zornhost status`: the instrument's health at a glance, once, live, or for Prometheus. Where another process holds
// the instrument it is asked; else this one takes the instrument and acquires from all channels meanwhile.
class StatusCommandLine {
public:
    explicit StatusCommandLine(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    // The exit code: 1 when a line says FAIL. `lock`: by which others find what this process tells them; may be null.
    int run(Session& session, InstrumentLock* lock, Output& output, bool json) const;
    // Of the process that serves on `socket`. Raises std::runtime_error when it doesn't answer.
    int runOn(const std::string& socket, Output& output, bool json) const;

private:
    using Source = std::function<HealthFigures()>;
    int watch(const Source& source, const HealthLimits& limits, Output& output, bool json) const;
    HealthLimits limits() const;

    CLI::App* command_;
    bool live_ = false;
    bool explain_ = false;
    double intervalS_ = 2.0;
    double durationS_ = 0.0;  // 0: not given
    double timeoutS_ = 30.0;
    std::string thresholds_;
    std::string listen_;
};

}  // namespace zornhost
