#pragma once

#include <set>
#include <utility>

#include "modules/daq/synchronization/SynchronizationMode.h"

namespace Harvane::RT::Modules::Daq {

// Ordered set of modes.
class SynchronizationModes : public std::set<SynchronizationMode> {
public:
    using std::set<SynchronizationMode>::set;
    SynchronizationModes() = default;

    bool hasSynchronizationMode(SynchronizationMode mode) const { return count(mode) != 0; }
};

// (mode in which the device follows, modes that it sources for others).
using SynchronizationOption = std::pair<SynchronizationMode, SynchronizationModes>;
// Ordered by slave mode, then lexicographically by the source modes.
using SynchronizationOptions = std::set<SynchronizationOption>;

}  // namespace Harvane::RT::Modules::Daq
