#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/zornhost/DefinitionCheck.h"

// Amplifier definitions that nobody would write: whatever stands in a file, reading it, making its class known to the
// host and asking an object of the class for all that the module asks must end with an answer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto report = zornhost::checkDefinition(text);
    // What isn't registered has a reason, and a place within the text.
    if (report.outcome == zornhost::DefinitionReport::Outcome::Registered) {
        return 0;
    }
    if (!report.hasErrors()) {
        __builtin_trap();
    }
    for (const auto& problem : report.problems) {
        if (problem.line > size + 1 || problem.column > size + 2) {
            __builtin_trap();
        }
    }
    return 0;
}
