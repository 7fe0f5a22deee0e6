#pragma once

#include <string>
#include <vector>

#include "modules/daq/objectmodel/InterfaceHelper.h"

namespace Harvane::RT::Modules::Daq {

// A family of ports whose names are known beforehand.
class StaticInterfaceHelper : public InterfaceHelper {
public:
    StaticInterfaceHelper(const std::string& interfaceName, const std::vector<std::string>& ids);

    std::string getInterfaceName() const override;
    std::vector<std::string> enumIDs() const override;

private:
    std::string interfaceName_;
    std::vector<std::string> ids_;
};

}  // namespace Harvane::RT::Modules::Daq
