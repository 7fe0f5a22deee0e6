#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "modules/daq/amplifier/DefinitionReader.h"
#include "modules/daq/objectmodel/RangeText.h"
#include "tools/zornhost/DefinitionCheck.h"

using namespace Harvane::RT::Modules::Daq;

// Amplifier definitions that nobody would write: whatever stands in a file, the module's reader ends with a class or a
// reason, and what it has read can be made known to the host and tried in every measurement.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto definition = readDefinition(text);
    if (static_cast<bool>(definition.objectClass) != definition.reason.empty()) {
        __builtin_trap();
    }
    isAmplifierIdentifier(definition.objectClass ? definition.identifier : text);
    try {
        rangeFromText(text);
    } catch (const std::logic_error&) {
        // Most texts are no number.
    }

    const auto report = zornhost::checkDefinition(text);
    using Outcome = zornhost::DefinitionReport::Outcome;
    if (report.outcome != Outcome::Wrong && !definition.objectClass) {
        __builtin_trap();
    }
    // What can't be used has a reason, and a place within the text.
    if (report.outcome == Outcome::Registered) {
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
