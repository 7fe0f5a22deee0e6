#pragma once

#include "modules/daq/objectmodel/Device.h"

namespace Harvane::RT::Modules::Daq {

// Root of the device tree.
class SystemDevice : public Device {
public:
    std::string getDisplayName() const override;
};

}  // namespace Harvane::RT::Modules::Daq
