#pragma once

#include "modules/daq/objectmodel/Channels.h"
#include "modules/daq/objectmodel/OperationMode.h"

namespace Harvane::RT::Modules::Daq {

// The channels of one device, driven together.
class DeviceChannels : public Channels {
public:
    void prepareAcquisition();
    // Settles which channels are active, counts them and initializes all of them; inactive ones get no memory.
    void initializeAcquisition();
    // A cycle begins with no samples in the active channels.
    void beforeAcquireData();
    void afterAcquireData();
    void finalizeAcquisition();

    int maxChannels = 0;  // How many channels the device makes.
    int activeChannelCount = 0;
    OperationMode operationMode = 0;

private:
    // Of the present acquisition: what a cycle goes through.
    std::vector<std::shared_ptr<Channel>> active_;
    std::vector<std::shared_ptr<Channel>> hooked_;  // of them, those that have something of their own to do
};

}  // namespace Harvane::RT::Modules::Daq
