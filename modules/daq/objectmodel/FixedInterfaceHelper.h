#pragma once

#include "modules/daq/objectmodel/StaticInterfaceHelper.h"

namespace Harvane::RT::Modules::Daq {

// "FixedInterface" with the ports "ID_0" to "ID_99". Nothing is probed: the names alone say what there is.
class FixedInterfaceHelper : public StaticInterfaceHelper {
public:
    FixedInterfaceHelper();
};

}  // namespace Harvane::RT::Modules::Daq
