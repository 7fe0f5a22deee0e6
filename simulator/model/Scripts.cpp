#include "simulator/model/Scripts.h"

#include <array>
#include <string_view>
#include <utility>

namespace kestrixsim {

namespace {

constexpr std::string_view ptpScript = "/opt/harvane/scripts/ptp_control.sh";
constexpr std::string_view vcxoScript = "/opt/harvane/scripts/vcxo_control.sh";

// The words of a command line behind the script's name, joined by one blank.
std::string argumentsOf(const std::string& commandLine, size_t nameLength) {
    std::string arguments;
    std::string word;
    for (size_t i = nameLength; i <= commandLine.size(); ++i) {
        const char c = i < commandLine.size() ? commandLine[i] : ' ';
        if (c != ' ' && c != '\t') {
            word += c;
        } else if (!word.empty()) {
            arguments += (arguments.empty() ? "" : " ") + word;
            word.clear();
        }
    }
    return arguments;
}

bool calls(const std::string& commandLine, std::string_view script) {
    return commandLine.compare(0, script.size(), script) == 0 &&
           (commandLine.size() == script.size() || commandLine[script.size()] == ' ');
}

std::string statusOf(const std::string& mode) {
    if (mode == "master") {
        return "mode=master;pps_mode=none";
    }
    if (mode == "master pps") {
        return "mode=master;pps_mode=pps";
    }
    if (mode == "master standalone") {
        return "mode=master;pps_mode=standalone";
    }
    if (mode == "slave") {
        return "mode=slave;pps_mode=none";
    }
    return "mode=disabled;pps_mode=none";
}

}  // namespace

Scripts::Scripts(Faults& faults, std::function<void(int)> oscillator, std::function<void(const std::string&)> daemon)
    : faults_(faults), oscillator_(std::move(oscillator)), daemon_(std::move(daemon)) {}

bool Scripts::owns(const std::string& commandLine) {
    return calls(commandLine, ptpScript) || calls(commandLine, vcxoScript);
}

std::string Scripts::run(const std::string& commandLine) {
    if (!owns(commandLine)) {
        return {};
    }
    note(commandLine);
    if (faults_.present(FaultKind::ScriptsMissing)) {
        return {};
    }
    if (faults_.hit(FaultKind::ScriptRefuses)) {
        return "ERR:fault\n";
    }
    if (faults_.hit(FaultKind::ScriptSilent)) {
        return {};
    }
    const std::string reply = calls(commandLine, ptpScript) ? ptp(argumentsOf(commandLine, ptpScript.size()))
                                                            : vcxo(argumentsOf(commandLine, vcxoScript.size()));
    return faults_.hit(FaultKind::ScriptUnheard) ? std::string() : reply;
}

void Scripts::note(const std::string& commandLine) {
    const std::lock_guard lock(mutex_);
    commands_.push_back(commandLine);
}

std::string Scripts::ptp(const std::string& arguments) {
    static constexpr std::array<std::string_view, 7> modes = {
        "master", "master pps", "master standalone", "slave", "irig master", "irig slave", "disable"};
    const std::lock_guard lock(mutex_);
    if (arguments == "restart") {
        running_ = stored_;
        daemon_(running_);
        return "OK:\n";
    }
    if (arguments == "status") {
        return "OK:" + statusOf(running_) + "\n";
    }
    for (const std::string_view mode : modes) {
        if (arguments == mode) {
            stored_ = arguments;
            return "OK:\n";
        }
    }
    return "ERR:usage\n";
}

std::string Scripts::vcxo(const std::string& arguments) {
    if (arguments == "set_clock 15" || arguments == "set_clock 10") {
        const int megahertz = arguments.back() == '5' ? 15 : 10;
        oscillator_(megahertz);
        return "switching oscillator output to " + std::to_string(megahertz) + " MHz\nOK:\n";
    }
    return arguments.compare(0, 9, "set_clock") == 0 ? "ERR:range\n" : "ERR:usage\n";
}

std::vector<std::string> Scripts::commandsRun() const {
    const std::lock_guard lock(mutex_);
    return commands_;
}

}  // namespace kestrixsim
