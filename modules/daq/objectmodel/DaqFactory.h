#pragma once

#include <memory>
#include <vector>

#include "modules/daq/objectmodel/DaqVector.h"
#include "modules/daq/objectmodel/DeviceFactory.h"
#include "modules/daq/objectmodel/Interfaces.h"

namespace Harvane::RT::Modules::Daq {

class SystemDevice;

// Turns registered classes and the interface tree into a device tree. Exceptions of device constructors pass through.
class DaqFactory {
public:
    // Makes one object of each device factory class registered so far.
    DaqFactory();

    void createInterfaces(Interfaces& interfaces) const;
    // The first device that a device factory makes of this connection point, or null.
    std::shared_ptr<Device> createDevice(const std::shared_ptr<ConnectionPoint>& connectionPoint);
    DaqVector<std::shared_ptr<Device>> createDevicesFromInterfaces(const Interfaces& interfaces);
    // Devices on a port by themselves stay as they are, several on one port stand under a GroupDevice. A device on no
    // port of the interfaces isn't in the result.
    DaqVector<std::shared_ptr<Device>> createGroupsWithSameInterfacePort(
        const DaqVector<std::shared_ptr<Device>>& devices, const Interfaces& interfaces) const;
    // The root: a SystemDevice among those found, or a new one, with all others as its children.
    std::shared_ptr<SystemDevice> createSystemDevice(const Interfaces& interfaces);

    std::vector<std::shared_ptr<DeviceFactory>> deviceFactories;
};

}  // namespace Harvane::RT::Modules::Daq
