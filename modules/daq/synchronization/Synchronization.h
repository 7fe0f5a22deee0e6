#pragma once

#include "modules/daq/synchronization/SynchronizationModes.h"

namespace Harvane::RT::Modules::Daq {

// A synchronisation option with its queries.
class Synchronization {
public:
    Synchronization() = default;
    Synchronization(SynchronizationOption option);
    Synchronization(const Synchronization&) = default;
    Synchronization& operator=(const Synchronization&) = default;
    virtual ~Synchronization() = default;

    bool hasSynchronizationSlaveMode(SynchronizationMode mode) const;
    bool isStandalone() const;
    bool isSoftSync() const;
    bool hasSynchronizationSourceMode(SynchronizationMode mode) const;
    // As slave or as source.
    bool hasSynchronizationMode(SynchronizationMode mode) const;
    bool hasSynchronizationModeOption(SynchronizationMode mode, const SynchronizationModes& modes) const;
    bool isSynchronizationModeEqual(const Synchronization& other) const;
    // Neither follows nor sources.
    bool isOnlyStandalone() const;

    static SynchronizationOption CreateSyncOption(SynchronizationMode mode, const SynchronizationModes& modes);

    SynchronizationMode slaveMode = SynchronizationMode::None;
    SynchronizationModes sourceModes;
};

}  // namespace Harvane::RT::Modules::Daq
