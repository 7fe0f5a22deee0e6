#pragma once

#include <string>

#include "modules/daq/objectmodel/DaqObject.h"
#include "modules/daq/objectmodel/DaqVector.h"

namespace Harvane::RT::Modules::Daq {

class Device;

// Node of the topology tree: devices and channel folders. The list base holds the children, which it owns.
class TopologyElement : public DaqObject, public DaqVector<std::shared_ptr<TopologyElement>> {
public:
    // Display name, then each line of the children's texts behind a line feed and "+", one "+" a level.
    std::string toString() const override;

    // Display name, a blank and the place among the parent's children; the name alone without such a parent.
    virtual std::string getElementId() const;

    virtual std::string getDisplayName() const;

    // This element as a device; null for any other. The walks of every cycle ask it, and a dynamic cast takes longer
    // than what a device does when nothing is ready.
    virtual Device* asDevice() { return nullptr; }

    int kind = 0;  // The host's tree shows only children of kind 0.
};

}  // namespace Harvane::RT::Modules::Daq
