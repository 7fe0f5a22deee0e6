#pragma once

#include <zorn/types/values.h>

namespace Harvane::RT::Modules::Daq {

struct LibraryVersion {
    unsigned int major = 0;
    unsigned int minor = 0;
    unsigned int patch = 0;
};

// Puts a library's version into the three outputs.
using GetLibraryVersion = void (*)(unsigned int* major, unsigned int* minor, unsigned int* patch);

// Libraries are compatible when their major versions are equal. When they are not, and errorMessage isn't null,
// *errorMessage receives a text with both versions and a reference for the caller.
bool isCompatibleVersion(const char* name, GetLibraryVersion getVersion, const LibraryVersion& expected,
                         Core::IString** errorMessage);

// All libraries of the host that this module was built against; the first one that doesn't fit ends the check.
bool areHostLibrariesCompatible(Core::IString** errorMessage);

}  // namespace Harvane::RT::Modules::Daq
