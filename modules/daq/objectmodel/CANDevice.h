#pragma once

#include <memory>
#include <string>

#include "modules/daq/objectmodel/SubDevice.h"

namespace Harvane::RT::Modules::Daq {

class CANChannel;

// CAN part of a device: channels, two a port where it has outputs, their names and folders. A subclass says how many
// (setMaxChannelsCount) and moves the frames.
class CANDevice : public SubDevice {
public:
    std::string getDisplayName() const override;
    // Makes the channels.
    void initializeHardware() override;
    // A folder for each port.
    void buildChannelView() override;
    // Names a channel, before its initialize().
    virtual void setChannelProperties(CANChannel& channel);

    // Null for a channel of another kind. Throws std::out_of_range beyond the list.
    std::shared_ptr<CANChannel> getCANChannel(int index) const;

    bool hasOutputChannels = false;  // Every second channel is one.
};

}  // namespace Harvane::RT::Modules::Daq
