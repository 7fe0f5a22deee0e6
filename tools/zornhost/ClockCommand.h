#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "tools/zornhost/InstrumentLock.h"
#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// `zornhost clock` and `zornhost clock wait`: how the sampling clock stands to its reference. Where another process
// holds the instrument it is asked; else this one takes the instrument, starts it and waits for the lock.
class ClockCommandLine {
public:
    explicit ClockCommandLine(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    // The exit code: 0 when the clock is locked (or follows nothing, unless it is waited for), 1 when it isn't.
    // `lock`: by which others find what this process tells them; may be null.
    int run(Session& session, InstrumentLock* lock, Output& output, bool json) const;
    // Of the process that serves on `socket`. Raises std::runtime_error when it doesn't answer.
    int runOn(const std::string& socket, Output& output, bool json) const;

private:
    CLI::App* command_;
    CLI::App* wait_;
    bool live_ = false;
    double durationS_ = 0.0;  // 0: not given
    double intervalS_ = 1.0;
    double timeoutS_ = 60.0;
    double withinNs_ = 0.0;  // 0: any
    std::vector<std::string> plots_;
    std::string csv_;

    class Source;
    class HeldInstrument;
    class OtherProcess;
    int watch(Source& source, Output& output, bool json) const;
    // `begin`: since when it is waited.
    int waitForLock(Source& source, std::chrono::steady_clock::time_point begin, Output& output, bool json) const;
    int runWith(Source& source, std::chrono::steady_clock::time_point begin, Output& output, bool json) const;
};

}  // namespace zornhost
