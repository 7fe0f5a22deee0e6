#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// `zornhost can`: dump, send and stats on the instrument's ports, and export of a recording's frames.
class CanCommandLine {
public:
    explicit CanCommandLine(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    // A command that takes no instrument.
    bool exports() const { return export_->parsed(); }
    int runExport(Output& output) const;
    int run(Session& session, Output& output, bool json) const;

private:
    int dump(Session& session, Output& output, bool json) const;
    int send(Session& session, Output& output, bool json) const;
    int stats(Session& session, Output& output, bool json) const;

    CLI::App* command_;
    CLI::App* dump_;
    CLI::App* send_;
    CLI::App* stats_;
    CLI::App* export_;
    std::vector<std::string> ports_;
    std::vector<std::string> filters_;
    std::string time_ = "z";
    bool log_ = false;
    double durationS_ = 0.0;  // 0: until Ctrl-C
    uint64_t count_ = 0;      // 0: any
    std::optional<int> bitRate_;
    std::string port_;
    std::vector<std::string> frames_;
    double everyMs_ = 0.0;
    uint64_t repeats_ = 1;
    double statsS_ = 1.0;
    std::string recording_;
    std::string target_;
};

}  // namespace zornhost
