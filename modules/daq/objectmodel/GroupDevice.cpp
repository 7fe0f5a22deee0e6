#include "modules/daq/objectmodel/GroupDevice.h"

namespace Harvane::RT::Modules::Daq {

std::string GroupDevice::getDisplayName() const {
    return groupName;
}

void GroupDevice::setGroupName(const std::string& newName) {
    groupName = newName;
}

}  // namespace Harvane::RT::Modules::Daq
