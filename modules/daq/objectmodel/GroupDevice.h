#pragma once

#include "modules/daq/objectmodel/Device.h"

namespace Harvane::RT::Modules::Daq {

// Several devices on one port.
class GroupDevice : public Device {
public:
    std::string getDisplayName() const override;
    void setGroupName(const std::string& newName);

    std::string groupName = "Device Group";
};

}  // namespace Harvane::RT::Modules::Daq
