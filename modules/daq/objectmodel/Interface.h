#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/DaqObject.h"
#include "modules/daq/objectmodel/DaqVector.h"
#include "modules/daq/objectmodel/InterfacePort.h"

namespace Harvane::RT::Modules::Daq {

// One way to reach hardware: a family of ports. The list base holds the ports of the last scan.
class Interface : public DaqObject, public DaqVector<std::shared_ptr<InterfacePort>> {
public:
    virtual std::string getInterfaceName() const = 0;
    virtual void initialize();
    // Disconnects the connected ports.
    virtual void finalize();
    virtual std::vector<std::string> enumPorts() const = 0;
    virtual std::shared_ptr<InterfacePort> createPort(const std::string& id) = 0;

    // Builds ports and connection points anew. Those of an earlier scan live on where a device stands on them.
    void scan();

    bool initialized = false;
};

}  // namespace Harvane::RT::Modules::Daq
