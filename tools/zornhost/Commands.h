#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/zornhost/InstrumentLock.h"
#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

struct RecordOptions {
    std::string file;
    double durationS = 0.0;
    std::optional<int64_t> rate;
    std::vector<std::string> channels;
    std::vector<std::string> routes;  // see Route
    bool strict = false;         // not with an amplifier that has not taken its settings, or a clock that isn't locked
    double lockTimeoutS = 60.0;  // how long the clock is waited for
    InstrumentLock* lock = nullptr;  // where others find who tells them of the clock; null: nobody else can ask
};

struct MonitorOptions {
    double durationS = 0.0;  // 0: until Ctrl-C
    double intervalS = 0.5;
    std::optional<int64_t> rate;
    std::vector<std::string> channels;
    std::vector<std::string> routes;  // see Route
    double lockTimeoutS = 60.0;
    InstrumentLock* lock = nullptr;
};

// Each command returns the process's exit code: 0 only when all went well. Failures are exceptions.
int showInfo(Session& session, Output& output, bool json);
int showTree(Session& session, Output& output, bool json);
// Around `near`, or around the system's rate in force without it.
int showRates(Session& session, Output& output, bool json, std::optional<int64_t> near, size_t count);
int listProperties(Session& session, Output& output, bool json, const std::string& path);
int getProperty(Session& session, Output& output, bool json, const std::string& path);
int setProperty(Session& session, Output& output, bool json, const std::string& path, const std::string& value);
int record(Session& session, Output& output, bool json, const RecordOptions& options);
int monitor(Session& session, Output& output, bool json, const MonitorOptions& options);

// The whole program.
int run(int argc, char** argv);

}  // namespace zornhost
