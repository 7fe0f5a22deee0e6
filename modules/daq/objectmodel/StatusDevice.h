#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/HealthState.h"
#include "modules/daq/objectmodel/StatusChannelType.h"
#include "modules/daq/objectmodel/SubDevice.h"

namespace Harvane::RT::Modules::Daq {

class StatusChannel;

// Status part of a device: a list of typed channels. A subclass says which and fills them.
class StatusDevice : public SubDevice {
public:
    std::string getDisplayName() const override;
    // Makes the channels.
    void initializeHardware() override;

    // Before initializeHardware. A type may come more than once.
    void addStatusChannel(StatusChannelType type);
    // Null for a channel of another kind. Throws std::out_of_range beyond the list.
    std::shared_ptr<StatusChannel> getStatusChannel(int index) const;
    // The first of this type, or null.
    std::shared_ptr<StatusChannel> getStatusChannel(StatusChannelType type) const;

    // From any thread, beside everything else that the device does.
    virtual HealthState getHealthState();

protected:
    std::shared_ptr<StatusChannel> createStatusChannel(int index) const;

    std::vector<StatusChannelType> statusChannelTypes;
};

}  // namespace Harvane::RT::Modules::Daq
