#pragma once

#include <memory>

#include <zorn/structure/module.h>

#include "modules/daq/bridge/BridgeState.h"
#include "modules/daq/bridge/HostRates.h"
#include "modules/daq/bridge/HostSynchronization.h"
#include "modules/daq/bridge/HostTree.h"
#include "modules/daq/controller/AcquisitionPhase.h"

namespace Harvane::RT::Modules::Daq {

class IChannelBuffer;

// The bridge between the device tree and the host's data model: mirrors devices and channels into folders, channels and
// properties (HostTree), keeps rates and clocks of both sides in step (HostRates), and copies what the user has set
// before each start.
//
// Everything runs on the host's configuration thread; only getChannelsMap is also read by the cycle, which never
// overlaps. Functions and handlers that stay in the host's tree after this object is gone answer InvalidState
// (0x80000029).
class DaqStructure {
public:
    // Keeps a reference to the controller and doesn't use it before the first call. Reads the amplifier definitions
    // in the folder "amplifiers" of the working directory.
    explicit DaqStructure(DaqController& controller);
    // Doesn't touch the controller, which may be gone already.
    virtual ~DaqStructure();
    DaqStructure(const DaqStructure&) = delete;
    DaqStructure& operator=(const DaqStructure&) = delete;

    // See HostTree.
    void buildDataModuleProps(const Core::DataModulePtr& dataModule) { tree_.buildDataModuleProps(dataModule); }
    void buildDeviceTree(const std::shared_ptr<TopologyElement>& element, const Core::ChannelFolderPtr& folder,
                         const Core::AcquisitionSyncPtr& sync) {
        tree_.buildDeviceTree(element, folder, sync);
    }
    // Whether anything of the module stands in the host's tree already.
    bool isBuilt() const { return static_cast<bool>(state_.dataModule); }

    // After an add that failed: lets the devices go. What stands in the host's tree already answers InvalidState from
    // now on.
    void forget() noexcept;

    // The chosen synchronisation comes into force, and is shown as such.
    void applySynchronization() { synchronization_.apply(); }
    // Settings that the host needs before it reserves memory.
    void initialize();
    // Nothing without a loop device.
    void initializeLoop(const Core::DataPtr& data, const Core::DataModulePtr& dataModule);
    // Takes over what the user has set and prepares the acquisition: all of it or nothing. The host has reserved its
    // channels' memory before. Throws InvalidStateException in the wrong phase, for a used channel whose write position
    // isn't 0 (the hardware's blocks only fit a ring from its beginning) and for a ring of less than two seconds.
    void beforeStart();
    // Whether the run that beforeStart has set up is still the one that the host shows: the same channels in use, with
    // the same rings. Changes of properties are told by themselves.
    bool isCurrent() const;
    void updateScaleFactors();

    // In tree walk order; filled once.
    ChannelsMap& getChannelsMap() { return state_.channels; }
    DevicesMap& getDevicesMap() { return state_.devices; }
    HostRates& rates() { return rates_; }
    HostTree& tree() { return tree_; }
    HostHooks& hooks() { return state_.hooks; }

private:
    std::shared_ptr<IChannelBuffer> hostBuffer(Channel& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel);

    BridgeState state_;
    HostRates rates_;
    HostSynchronization synchronization_;
    HostTree tree_;
};

// Throws the host's InvalidStateException (0x80000029), in the controller's words, when a step isn't possible now.
void requireStep(const DaqController& controller, AcquisitionStep step);

}  // namespace Harvane::RT::Modules::Daq
