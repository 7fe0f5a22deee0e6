#pragma once

#include <cstdint>

namespace Harvane::RT::Modules::Daq {

// Place of one array within the element buffer of a channel with arrays of varying length.
struct DynArrayPositionIndex {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
};

static_assert(sizeof(DynArrayPositionIndex) == 16);

}  // namespace Harvane::RT::Modules::Daq
