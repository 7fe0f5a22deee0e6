#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/Device.h"
#include "modules/daq/objectmodel/DeviceFactory.h"

namespace Harvane::RT::Modules::Daq {

// Makes a T on the one connection point that Parameters names. Parameters is a default-constructible class with the
// members interfaceName and connectionPointName, both convertible to std::string.
template <class T, class Parameters>
class GenericDeviceFactory : public DeviceFactory {
public:
    std::vector<std::string> supportsInterfaces() const override { return {Parameters().interfaceName}; }

    std::shared_ptr<Device> createDevice(const std::shared_ptr<ConnectionPoint>& connectionPoint) override {
        if (connectionPoint->name != Parameters().connectionPointName) {
            return nullptr;
        }
        return std::make_shared<T>();
    }
};

}  // namespace Harvane::RT::Modules::Daq
