#pragma once

#include "modules/daq/objectmodel/SubDevice.h"

namespace Harvane::RT::Modules::Daq {

// CAN part of a device: the place that a DaqDevice keeps for it.
class CANDevice : public SubDevice {
protected:
    CANDevice() = default;
};

}  // namespace Harvane::RT::Modules::Daq
