#pragma once

#include "modules/daq/objectmodel/FixedConnectionPoint.h"
#include "modules/daq/objectmodel/FixedInterfaceHelper.h"
#include "modules/daq/objectmodel/GenericInterfacePort.h"

namespace Harvane::RT::Modules::Daq {

class FixedInterfacePort : public GenericInterfacePort<FixedInterfaceHelper, FixedConnectionPoint> {
public:
    using GenericInterfacePort::GenericInterfacePort;
};

}  // namespace Harvane::RT::Modules::Daq
