#include "modules/daq/objectmodel/DaqFactory.h"

#include <algorithm>

#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/GroupDevice.h"
#include "modules/daq/objectmodel/SystemDevice.h"

namespace Harvane::RT::Modules::Daq {

namespace {

// The object of a factory as a T. The shared_ptr is made first, so that a class registered under the wrong type is
// freed.
template <class T>
std::shared_ptr<T> createAs(IDaqObjectFactory& factory) {
    std::shared_ptr<DaqObject> object(factory.createInstance());
    auto result = std::dynamic_pointer_cast<T>(object);
    if (!result) {
        throw InvalidTypeException();
    }
    return result;
}

}  // namespace

DaqFactory::DaqFactory() {
    for (auto* factory : DaqObjectFactoryManager::getObjectFactories(DaqObjectFactoryType::DeviceFactory)) {
        deviceFactories.push_back(createAs<DeviceFactory>(*factory));
    }
}

void DaqFactory::createInterfaces(Interfaces& interfaces) const {
    for (auto* factory : DaqObjectFactoryManager::getObjectFactories(DaqObjectFactoryType::Interface)) {
        interfaces.push_back(createAs<Interface>(*factory));
    }
}

std::shared_ptr<Device> DaqFactory::createDevice(const std::shared_ptr<ConnectionPoint>& connectionPoint) {
    auto port = connectionPoint->getParent<InterfacePort>();
    auto interface = port ? port->getParent<Interface>() : nullptr;
    if (!interface) {
        return nullptr;
    }
    const std::string interfaceName = interface->getInterfaceName();
    for (const auto& factory : deviceFactories) {
        const auto supported = factory->supportsInterfaces();
        if (std::find(supported.begin(), supported.end(), interfaceName) == supported.end()) {
            continue;
        }
        if (auto device = factory->createDevice(connectionPoint)) {
            device->connectionPoint = connectionPoint;
            return device;
        }
    }
    return nullptr;
}

DaqVector<std::shared_ptr<Device>> DaqFactory::createDevicesFromInterfaces(const Interfaces& interfaces) {
    DaqVector<std::shared_ptr<Device>> devices;
    for (const auto& interface : interfaces) {
        for (const auto& port : *interface) {
            for (const auto& connectionPoint : *port) {
                if (auto device = createDevice(connectionPoint)) {
                    devices.push_back(device);
                }
            }
        }
    }
    return devices;
}

DaqVector<std::shared_ptr<Device>> DaqFactory::createGroupsWithSameInterfacePort(
    const DaqVector<std::shared_ptr<Device>>& devices, const Interfaces& interfaces) const {
    DaqVector<std::shared_ptr<Device>> result;
    for (const auto& interface : interfaces) {
        for (const auto& port : *interface) {
            DaqVector<std::shared_ptr<Device>> onPort;
            for (const auto& device : devices) {
                if (std::find(port->begin(), port->end(), device->connectionPoint) != port->end()) {
                    onPort.push_back(device);
                }
            }
            if (onPort.size() == 1) {
                result.push_back(onPort.front());
            } else if (!onPort.empty()) {
                auto group = std::make_shared<GroupDevice>();
                group->assign(onPort.begin(), onPort.end());
                result.push_back(group);
            }
        }
    }
    return result;
}

std::shared_ptr<SystemDevice> DaqFactory::createSystemDevice(const Interfaces& interfaces) {
    auto devices = createGroupsWithSameInterfacePort(createDevicesFromInterfaces(interfaces), interfaces);
    std::shared_ptr<SystemDevice> root;
    for (const auto& device : devices) {
        root = std::dynamic_pointer_cast<SystemDevice>(device);
        if (root) {
            break;
        }
    }
    if (root) {
        devices.deleteElement(root);
    } else {
        root = std::make_shared<SystemDevice>();
    }
    root->insert(root->end(), devices.begin(), devices.end());
    return root;
}

}  // namespace Harvane::RT::Modules::Daq
