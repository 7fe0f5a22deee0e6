#pragma once

#include "modules/daq/objectmodel/FixedInterfaceHelper.h"
#include "modules/daq/objectmodel/GenericConnectionPoint.h"

namespace Harvane::RT::Modules::Daq {

class FixedConnectionPoint : public GenericConnectionPoint<FixedInterfaceHelper> {
public:
    using GenericConnectionPoint::GenericConnectionPoint;
};

}  // namespace Harvane::RT::Modules::Daq
