#include "modules/daq/objectmodel/StaticInterfaceHelper.h"

namespace Harvane::RT::Modules::Daq {

StaticInterfaceHelper::StaticInterfaceHelper(const std::string& interfaceName, const std::vector<std::string>& ids)
    : interfaceName_(interfaceName), ids_(ids) {}

std::string StaticInterfaceHelper::getInterfaceName() const {
    return interfaceName_;
}

std::vector<std::string> StaticInterfaceHelper::enumIDs() const {
    return ids_;
}

}  // namespace Harvane::RT::Modules::Daq
