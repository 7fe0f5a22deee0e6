#include "modules/daq/entry/LibraryVersion.h"

#include <string>

#include <fmt/format.h>

#include <zorn/objects/property_object.h>
#include <zorn/structure/module.h>

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

struct HostLibrary {
    const char* name;
    GetLibraryVersion getVersion;
    LibraryVersion expected;
};

// The versions that this module was built against.
constexpr HostLibrary hostLibraries[] = {
    {"CoreTypes", &zornCoreTypesGetVersion, {1, 1, 0}},
    {"CoreObjects", &zornCoreObjectsGetVersion, {1, 0, 0}},
    {"CoreStructure", &zornCoreStructureGetVersion, {1, 2, 0}},
    {"ModuleManager", &zornModuleManagerGetVersion, {1, 0, 0}},
    {"Scheduler", &zornSchedulerGetVersion, {1, 0, 0}},
};

}  // namespace

bool isCompatibleVersion(const char* name, GetLibraryVersion getVersion, const LibraryVersion& expected,
                         IString** errorMessage) {
    LibraryVersion found;
    getVersion(&found.major, &found.minor, &found.patch);
    if (found.major == expected.major) {
        return true;
    }
    if (errorMessage != nullptr) {
        const std::string text =
            fmt::format("Incompatible {0} v{1}.{2}.{3} (expected compatible with v{4}.{5}.{6})", name, expected.major,
                        expected.minor, expected.patch, found.major, found.minor, found.patch);
        // Without memory for the text the answer itself still stands.
        if (failed(createString(errorMessage, text.c_str()))) {
            zornClearErrorInfo();
        }
    }
    return false;
}

bool areHostLibrariesCompatible(IString** errorMessage) {
    for (const auto& library : hostLibraries) {
        if (!isCompatibleVersion(library.name, library.getVersion, library.expected, errorMessage)) {
            return false;
        }
    }
    return true;
}

}  // namespace Harvane::RT::Modules::Daq
