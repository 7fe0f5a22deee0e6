#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "simulator/model/Faults.h"

namespace kestrixsim {

// The platform's scripts: the role of the PTP daemon and the output of the oscillator. Thread-safe.
class Scripts {
public:
    // `oscillator`: told the megahertz of each change. `daemon`: told the role at each restart of the PTP daemon.
    Scripts(Faults& faults, std::function<void(int)> oscillator, std::function<void(const std::string&)> daemon);

    static bool owns(const std::string& commandLine);
    std::string run(const std::string& commandLine);
    // A command that others answer, in its place among these.
    void note(const std::string& commandLine);
    std::vector<std::string> commandsRun() const;

private:
    std::string ptp(const std::string& arguments);
    std::string vcxo(const std::string& arguments);

    Faults& faults_;
    const std::function<void(int)> oscillator_;
    const std::function<void(const std::string&)> daemon_;
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::string stored_ = "disable";   // the argument last given
    std::string running_ = "disable";  // the one in force at the last "restart"
};

}  // namespace kestrixsim
