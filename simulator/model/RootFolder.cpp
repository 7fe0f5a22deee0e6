#include "simulator/model/RootFolder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace kestrixsim {

namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << text;
    stream.close();
    if (!stream) {
        throw std::runtime_error("Cannot write \"" + file.string() + "\"");
    }
}

void writeScript(const fs::path& file, const std::string& text) {
    writeFile(file, text);
    fs::permissions(file, fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec,
                    fs::perm_options::add);
}

// The kernel's number for CAN, of <linux/if_arp.h>.
constexpr const char* canType = "280";

// The state lies beside the scripts, so that copies of the folder do not disturb each other.
const char* const ptpText = R"sh(#!/bin/sh
# Role of the PTP daemon and of the timing driver's IRIG lines.
state="$(dirname "$0")/state"
mkdir -p "$state" || { echo "ERR:state"; exit 1; }
case "$*" in
    master|"master pps"|"master standalone"|slave|"irig master"|"irig slave"|disable)
        echo "$*" > "$state/ptp.stored" && echo "OK:"
        ;;
    restart)
        [ -f "$state/ptp.stored" ] && cp "$state/ptp.stored" "$state/ptp.running"
        echo "OK:"
        ;;
    status)
        case "$(cat "$state/ptp.running" 2>/dev/null)" in
            master) echo "OK:mode=master;pps_mode=none" ;;
            "master pps") echo "OK:mode=master;pps_mode=pps" ;;
            "master standalone") echo "OK:mode=master;pps_mode=standalone" ;;
            slave) echo "OK:mode=slave;pps_mode=none" ;;
            *) echo "OK:mode=disabled;pps_mode=none" ;;
        esac
        ;;
    *)
        echo "ERR:usage"
        exit 1
        ;;
esac
)sh";

const char* const vcxoText = R"sh(#!/bin/sh
# Output of the sampling oscillator in megahertz.
state="$(dirname "$0")/state"
mkdir -p "$state" || { echo "ERR:state"; exit 1; }
case "$1 $2" in
    "set_clock 15"|"set_clock 10")
        echo "switching oscillator output to $2 MHz"
        echo "$2" > "$state/vcxo" && echo "OK:"
        ;;
    "set_clock "*)
        echo "ERR:range"
        exit 1
        ;;
    *)
        echo "ERR:usage"
        exit 1
        ;;
esac
)sh";

}  // namespace

void populateRootFolder(const std::string& folder, const Scenario& scenario, const std::string& networkAddress,
                        const std::vector<std::string>& canInterfaces,
                        const std::function<std::string(const std::string& path)>& sensorText) {
    const fs::path root(folder);
    const auto has = [&scenario](FaultKind kind) {
        return std::any_of(scenario.faults.begin(), scenario.faults.end(),
                           [kind](const Fault& fault) { return fault.kind == kind; });
    };
    if (!has(FaultKind::SysfsMissing)) {
        for (const char* place : {"board/leds", "sys/class/leds"}) {
            for (const char* led : {"led2", "alarm"}) {
                writeFile(root / place / led / "brightness", "0\n");
                writeFile(root / place / led / "trigger", "none\n");
            }
        }
        // Lines of the board: cable detection 496 and 497, timing selection 504 to 506.
        for (int line : {496, 497, 504, 505, 506}) {
            if (line < 504 && !scenario.thermals.cableLines) {
                continue;
            }
            const bool high = line == 496 ? scenario.thermals.cable1 : line == 497 && scenario.thermals.cable2;
            const fs::path gpio = root / "sys/class/gpio" / ("gpio" + std::to_string(line));
            writeFile(gpio / "value", high ? "1\n" : "0\n");
            writeFile(gpio / "direction", line < 504 ? "in\n" : "out\n");
        }
    }
    const fs::path timing = root / "sys/class/tolvn_korvel/tolvn_timing";
    for (const char* name : {"irig_in_enabled", "irig_out_enabled", "igb_ptp_update_correction_ns"}) {
        writeFile(timing / name, "0\n");
    }
    const auto writeSensors = [&](bool there, const std::string& place, std::initializer_list<const char*> names) {
        for (const char* name : names) {
            if (there) {
                writeFile(root / (place.substr(1) + name), sensorText(place + name));
            }
        }
    };
    const SensorFamily family = scenario.thermals.sensors;
    writeSensors(
        family == SensorFamily::Monitors || family == SensorFamily::Both, "/sys/class/hwmon/",
        {"hwmon0/temp1_input", "hwmon1/temp1_input", "hwmon2/temp1_input", "hwmon2/temp2_input", "hwmon2/temp3_input"});
    writeSensors(family == SensorFamily::Chips || family == SensorFamily::Both, "/sys/bus/iio/devices/iio:device0/",
                 {"in_temp0_ps_temp_raw", "in_temp1_remote_temp_raw", "in_temp2_pl_temp_raw"});
    writeSensors(scenario.boardType == 1 && scenario.thermals.cableSensor, "/sys/bus/iio/devices/iio:device1/",
                 {"in_voltage0-voltage1_raw", "in_voltage1_raw"});
    writeFile(root / "sys/class/net/eth0/address", networkAddress + "\n");
    for (const std::string& name : canInterfaces) {
        writeFile(root / "sys/class/net" / name / "type", canType + std::string("\n"));
        writeFile(root / "sys/class/net" / name / "mtu", "16\n");
    }
    fs::create_directories(root / "var/run");  // for sockets
    if (!has(FaultKind::ScriptsMissing)) {
        writeScript(root / "opt/harvane/scripts/ptp_control.sh", ptpText);
        writeScript(root / "opt/harvane/scripts/vcxo_control.sh", vcxoText);
    }
}

std::vector<std::string> machineCanInterfaces() {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator("/sys/class/net", none)) {
        std::string type;
        std::ifstream(entry.path() / "type") >> type;
        if (type == canType) {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kestrixsim
