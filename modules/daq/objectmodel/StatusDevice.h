#pragma once

#include "modules/daq/objectmodel/SubDevice.h"

namespace Harvane::RT::Modules::Daq {

// Status part of a device: the place that a DaqDevice keeps for it.
class StatusDevice : public SubDevice {
protected:
    StatusDevice() = default;
};

}  // namespace Harvane::RT::Modules::Daq
