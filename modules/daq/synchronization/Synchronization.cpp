#include "modules/daq/synchronization/Synchronization.h"

namespace Harvane::RT::Modules::Daq {

Synchronization::Synchronization(SynchronizationOption option)
    : slaveMode(option.first), sourceModes(std::move(option.second)) {}

bool Synchronization::hasSynchronizationSlaveMode(SynchronizationMode mode) const {
    return slaveMode == mode;
}

bool Synchronization::isStandalone() const {
    return hasSynchronizationSlaveMode(SynchronizationMode::Standalone);
}

bool Synchronization::isSoftSync() const {
    return hasSynchronizationSlaveMode(SynchronizationMode::SoftSync);
}

bool Synchronization::hasSynchronizationSourceMode(SynchronizationMode mode) const {
    return sourceModes.hasSynchronizationMode(mode);
}

bool Synchronization::hasSynchronizationMode(SynchronizationMode mode) const {
    return hasSynchronizationSlaveMode(mode) || hasSynchronizationSourceMode(mode);
}

bool Synchronization::hasSynchronizationModeOption(SynchronizationMode mode, const SynchronizationModes& modes) const {
    return slaveMode == mode && sourceModes == modes;
}

bool Synchronization::isSynchronizationModeEqual(const Synchronization& other) const {
    return hasSynchronizationModeOption(other.slaveMode, other.sourceModes);
}

bool Synchronization::isOnlyStandalone() const {
    return isStandalone() && sourceModes.empty();
}

SynchronizationOption Synchronization::CreateSyncOption(SynchronizationMode mode, const SynchronizationModes& modes) {
    return {mode, modes};
}

}  // namespace Harvane::RT::Modules::Daq
