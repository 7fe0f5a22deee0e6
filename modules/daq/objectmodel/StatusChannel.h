#pragma once

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/StatusChannelType.h"

namespace Harvane::RT::Modules::Daq {

// A figure of the device's own state: asynchronous, used from the start, room for 200 samples. Its type decides on
// name, range and sample type; one that isn't known leaves it without the three.
class StatusChannel : public Channel {
public:
    StatusChannel(int number, StatusChannelType type);

    const StatusChannelType statusChannelType;
};

}  // namespace Harvane::RT::Modules::Daq
