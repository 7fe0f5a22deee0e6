#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "simulator/model/CanLog.h"
#include "simulator/model/ScenarioJson.h"

using namespace kestrixsim;

namespace {

// The line that `candump -L` writes of it.
std::string lineOf(const CanLog::Entry& entry) {
    char text[64];
    const uint32_t id = entry.frame.id & ~(CanFrame::extended | CanFrame::remote);
    std::snprintf(
        text, sizeof text,
        entry.frame.isExtended() || entry.frame.isError() ? "(%ld.%09ld) can0 %08X#" : "(%ld.%09ld) can0 %03X#",
        static_cast<long>(entry.nanoseconds / 1000000000), static_cast<long>(entry.nanoseconds % 1000000000), id);
    std::string line = text;
    if (entry.frame.isRemote()) {
        return line + "R" + std::to_string(entry.frame.length) + "\n";
    }
    for (size_t i = 0; i < entry.frame.length; ++i) {
        std::snprintf(text, sizeof text, "%02X", entry.frame.data[i]);
        line += text;
    }
    return line + "\n";
}

}  // namespace

// Logs of CAN traffic that nobody would record: a log is refused with its name, a line and a reason, or its frames come
// in the order of time and, written out again, are the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<CanLog::Entry> entries;
    try {
        entries = CanLog::parse(text, "log");
        CanLog::parse(text, "log", "can1");
    } catch (const ScenarioError& refused) {
        if (std::string(refused.what()).rfind("log:", 0) != 0) {
            __builtin_trap();
        }
        return 0;
    }
    std::string written;
    int64_t last = 0;
    for (const CanLog::Entry& entry : entries) {
        if (entry.nanoseconds < last || entry.frame.length > entry.frame.data.size()) {
            __builtin_trap();
        }
        last = entry.nanoseconds;
        written += lineOf(entry);
    }
    const auto again = CanLog::parse(written, "log");
    for (size_t i = 0; i < entries.size(); ++i) {
        if (again.size() != entries.size() || again[i].nanoseconds != entries[i].nanoseconds ||
            again[i].frame != entries[i].frame) {
            __builtin_trap();
        }
    }
    return 0;
}
