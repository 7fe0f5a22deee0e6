#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/ConnectionPoint.h"
#include "modules/daq/objectmodel/DaqObject.h"

namespace Harvane::RT::Modules::Daq {

class Device;

// Recognises the devices of one kind on connection points. It is a DaqObject so that it can be registered.
class DeviceFactory : public DaqObject {
public:
    virtual std::vector<std::string> supportsInterfaces() const = 0;
    // Null when this connection point carries no such device.
    virtual std::shared_ptr<Device> createDevice(const std::shared_ptr<ConnectionPoint>& connectionPoint) = 0;
};

}  // namespace Harvane::RT::Modules::Daq
