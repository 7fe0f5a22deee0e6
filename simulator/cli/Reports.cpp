#include "simulator/cli/Reports.h"

#include <cstdio>
#include <string_view>

#include "simulator/model/ScenarioJson.h"
#include "simulator/preload/Doors.h"

namespace kestrixsim {

namespace {

// A text as JSON writes it, quotes included.
std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", c);
            out += code;
        } else {
            out += c;
        }
    }
    return out + '"';
}

std::string shownPath(const Door& door) {
    switch (door.match) {
        case DoorMatch::Numbered:
            return std::string(door.path) + "N";
        case DoorMatch::Prefix:
            return std::string(door.path) + "*";
        case DoorMatch::Tree:
            return std::string(door.path) + "/...";
        default:
            return std::string(door.path);
    }
}

std::string_view answer(DoorKind kind) {
    switch (kind) {
        case DoorKind::Absent:
            return "absent";
        case DoorKind::Files:
            return "files";
        case DoorKind::Socket:
            return "socket";
        default:
            return "device";
    }
}

}  // namespace

int printScenario(bool counters) {
    std::fputs(ScenarioJson::write(counters ? Scenario::counters() : Scenario::standard()).c_str(), stdout);
    return 0;
}

int checkScenario(const std::string& file, bool json) {
    try {
        const Scenario scenario = ScenarioJson::read(file);
        if (json) {
            std::printf("{\"file\": %s, \"valid\": true, \"slots\": %d, \"modules\": %zu, \"faults\": %zu}\n",
                        quoted(file).c_str(), scenario.slots, scenario.modules.size(), scenario.faults.size());
        } else {
            std::printf("%s: board type %d, %d slots, %zu modules, %zu faults\n", file.c_str(), scenario.boardType,
                        scenario.slots, scenario.modules.size(), scenario.faults.size());
        }
        return 0;
    } catch (const ScenarioError& error) {
        if (json) {
            std::printf("{\"file\": %s, \"valid\": false, \"error\": %s}\n", quoted(file).c_str(),
                        quoted(error.what()).c_str());
        }
        std::fprintf(stderr, "kestrix-sim: %s\n", error.what());
        return 1;
    }
}

int listDoors(bool json) {
    if (json) {
        std::string out = "[\n";
        for (const Door& door : doors) {
            out += "  {\"path\": " + quoted(shownPath(door)) + ", \"answer\": " + quoted(answer(door.kind)) +
                   ", \"purpose\": " + quoted(door.purpose) + "}" + (&door != &doors.back() ? ",\n" : "\n");
        }
        std::printf("%s]\n", out.c_str());
        return 0;
    }
    for (const Door& door : doors) {
        std::printf("%-26s %-7s %.*s\n", shownPath(door).c_str(), std::string(answer(door.kind)).c_str(),
                    static_cast<int>(door.purpose.size()), door.purpose.data());
    }
    std::puts("");
    std::puts("device  served by the simulated instrument");
    std::puts("files   plain files in a folder of the process");
    std::puts("socket  a Unix socket in that folder");
    std::puts("absent  ENOENT, never the real node");
    std::puts("popen   command lines of the platform scripts are answered in the process, others are run");
    std::puts("Every other path, descriptor and command falls through to the system.");
    return 0;
}

}  // namespace kestrixsim
