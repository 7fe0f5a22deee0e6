#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// `zornhost doctor`: what a measurement needs, before there is one. Needs neither module nor instrument.
class DoctorCommandLine {
public:
    explicit DoctorCommandLine(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    // The exit code: 0 when nothing is FAIL. `lockFile`: of the instrument; empty where only this process has it.
    int run(const SessionOptions& session, const std::string& lockFile, Output& output) const;

private:
    CLI::App* command_;
    CLI::Option* output_;
    CLI::Option* folderOption_;
    CLI::Option* need_;
    std::string file_;
    std::string folder_;
    double needMegabytes_ = 0.0;  // 1e6 bytes a second
};

}  // namespace zornhost
