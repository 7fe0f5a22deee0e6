#include "modules/daq/daqdevices/kestrix/src/PlatformPtpControl.h"

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <system_error>

#include "modules/daq/daqdevices/kestrix/src/PlatformScript.h"
#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

using namespace Harvane::RT::Modules::Daq::Platform;

namespace {

const std::string scriptPath = Harvane::Shared::Kestrix::InstrumentPaths::ptpScript;
const std::string irigInPath = Harvane::Shared::Kestrix::InstrumentPaths::irigInSwitch;
const std::string irigOutPath = Harvane::Shared::Kestrix::InstrumentPaths::irigOutSwitch;
const std::string correctionPath = Harvane::Shared::Kestrix::InstrumentPaths::ptpCorrection;

struct Switch {
    const std::string& path;
    const char* value;
};

struct StateAction {
    PlatformPtpControl::STATE state;
    const char* logLine;  // null: none
    const char* argument;
    std::array<Switch, 2> switches;  // in the order of writing: an output is closed before an input opens
};

const std::array<StateAction, 8> stateActions{{
    {PlatformPtpControl::PTP_STATE_MASTER, "setting mode master", "master", {{{irigInPath, "0"}, {irigOutPath, "0"}}}},
    {PlatformPtpControl::PTP_STATE_MASTER_PPS,
     "setting mode master pps",
     "master pps",
     {{{irigInPath, "1"}, {irigOutPath, "0"}}}},
    {PlatformPtpControl::PTP_STATE_MASTER_STANDALONE,
     "setting mode master standalone",
     "master standalone",
     {{{irigInPath, "0"}, {irigOutPath, "0"}}}},
    {PlatformPtpControl::PTP_STATE_SLAVE, nullptr, "slave", {{{irigInPath, "0"}, {irigOutPath, "0"}}}},
    {PlatformPtpControl::PTP_STATE_SLAVE_IRIG_OUT,
     "setting mode ptp slave, IRIG master",
     "slave",
     {{{irigOutPath, "1"}, {irigInPath, "0"}}}},
    {PlatformPtpControl::PTP_STATE_DISABLED_IRIG_OUT,
     "setting mode IRIG master",
     "irig master",
     {{{irigOutPath, "1"}, {irigInPath, "0"}}}},
    {PlatformPtpControl::PTP_STATE_DISABLED_IRIG_IN,
     "setting mode IRIG slave",
     "irig slave",
     {{{irigInPath, "1"}, {irigOutPath, "0"}}}},
    {PlatformPtpControl::PTP_STATE_DISABLED,
     "setting PTP mode disable",
     "disable",
     {{{irigInPath, "0"}, {irigOutPath, "0"}}}},
}};

// "OK:key=value;key=value". The first value of a key counts.
std::map<std::string, std::string> parseStatus(const std::string& reply) {
    std::map<std::string, std::string> values;
    size_t start = 3;
    for (;;) {
        const size_t equals = reply.find('=', start);
        if (equals == std::string::npos || equals + 1 >= reply.size()) {
            return values;
        }
        const size_t end = std::min(reply.find(';', equals + 1), reply.size());
        const std::string key = reply.substr(start, equals - start);
        const std::string value = reply.substr(equals + 1, end - equals - 1);
        KESTRIX_LOG(1, "parsed {}->{}", key, value);
        values.emplace(key, value);
        if (end == reply.size()) {
            return values;
        }
        start = end + 1;
    }
}

PlatformPtpControl::STATE masterState(const std::map<std::string, std::string>& values) {
    const auto ppsMode = values.find("pps_mode");
    if (ppsMode == values.end()) {
        return PlatformPtpControl::PTP_STATE_MASTER;
    }
    if (ppsMode->second == "pps") {
        KESTRIX_LOG(1, "pps mode: {}", ppsMode->second);
        return PlatformPtpControl::PTP_STATE_MASTER_PPS;
    }
    if (ppsMode->second == "standalone") {
        KESTRIX_LOG(1, "pps_mode: {}", ppsMode->second);
        return PlatformPtpControl::PTP_STATE_MASTER_STANDALONE;
    }
    return PlatformPtpControl::PTP_STATE_MASTER;
}

}  // namespace

struct PlatformPtpControl::pimpl_s {
    bool setState(STATE state, bool active) {
        for (const StateAction& action : stateActions) {
            if (action.state == state) {
                if (action.logLine != nullptr) {
                    KESTRIX_LOG(2, "{}", action.logLine);
                }
                return execute(action, active);
            }
        }
        return false;
    }

    bool execute(const StateAction& action, bool active) {
        if (!executeCommand(action.argument, active)) {
            return false;
        }
        if (active) {
            const Switch& first = action.switches.front();
            KESTRIX_LOG(2, "setting {} to {}", first.path, first.value);
            for (const Switch& line : action.switches) {
                writeSysfs(line.path, line.value);
            }
        }
        return true;
    }

    bool executeCommand(const std::string& argument, bool active) {
        return isSuccess(runScript(scriptPath, {argument})) &&
               (!active || isSuccess(runScript(scriptPath, {"restart"})));
    }
};

PlatformPtpControl::PlatformPtpControl() : pimpl_(std::make_unique<pimpl_s>()) {}

PlatformPtpControl::~PlatformPtpControl() = default;

bool PlatformPtpControl::setActiveState(STATE state) {
    return pimpl_->setState(state, true);
}

bool PlatformPtpControl::setConfiguredState(STATE state) {
    return pimpl_->setState(state, false);
}

PlatformPtpControl::STATE PlatformPtpControl::getState() {
    return stateOf(runScript(scriptPath, {"status"}));
}

PlatformPtpControl::STATE PlatformPtpControl::stateOf(const std::string& reply) {
    if (!isSuccess(reply)) {
        return PTP_STATE_UNKNOWN;
    }
    const std::map<std::string, std::string> values = parseStatus(reply);
    const auto mode = values.find("mode");
    if (mode == values.end()) {
        return PTP_STATE_UNKNOWN;
    }
    KESTRIX_LOG(1, "mode: {}", mode->second);
    if (mode->second == "slave") {
        return PTP_STATE_SLAVE;
    }
    return mode->second == "master" ? masterState(values) : PTP_STATE_UNKNOWN;
}

bool PlatformPtpControl::setPpsToPtpDelay(int nanoseconds) {
    try {
        KESTRIX_LOG(2, "setting {} to {}", correctionPath, nanoseconds);
        writeSysfs(correctionPath, std::to_string(nanoseconds));
        return true;
    } catch (const std::system_error&) {
        KESTRIX_LOG(5, "unable to write {} to sysfs path {}", nanoseconds, correctionPath);
        return false;
    }
}
