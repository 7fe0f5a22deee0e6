#include "modules/daq/objectmodel/SystemDevice.h"

namespace Harvane::RT::Modules::Daq {

std::string SystemDevice::getDisplayName() const {
    return "Measurement system";
}

}  // namespace Harvane::RT::Modules::Daq
