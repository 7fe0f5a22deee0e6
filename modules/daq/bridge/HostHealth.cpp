#include "modules/daq/bridge/HostHealth.h"

#include <algorithm>
#include <initializer_list>
#include <string>

#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/HostValues.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/StatusDevice.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

BasePtr named(const char* name, const BasePtr& value) {
    return asBase(ListPtr::create({toValue(name), value}));
}

BasePtr toList(const HealthState::Sensor& sensor) {
    return asBase(ListPtr::create({
        named("Group", toValue(sensor.group)),
        named("Name", toValue(sensor.name)),
        named("Place", toValue(sensor.place)),
        named("Celsius", toValue(sensor.celsius)),
        named("Ok", toValue(sensor.ok)),
        named("Reason", toValue(sensor.reason)),
        named("Reads", toValue(static_cast<int64_t>(sensor.reads))),
        named("Failures", toValue(static_cast<int64_t>(sensor.failures))),
        named("AgeSeconds", toValue(sensor.ageSeconds)),
    }));
}

BasePtr toList(const HealthState::Line& line) {
    return asBase(ListPtr::create({
        named("Name", toValue(line.name)),
        named("Place", toValue(line.place)),
        named("Value", toValue(line.value)),
        named("Reason", toValue(line.reason)),
    }));
}

}  // namespace

void HostHealth::registerProperties(BridgeState& state) {
    // The host's tree may outlive the devices.
    std::vector<std::weak_ptr<StatusDevice>> devices;
    std::vector<std::weak_ptr<AIDevice>> inputs;
    for (const auto& device : state.controller.daqDevices) {
        if (device->statusDevice) {
            devices.push_back(device->statusDevice);
            inputs.push_back(device->aiDevice);
        }
    }
    if (devices.empty()) {
        return;
    }
    auto answer = [devices, inputs](const BasePtr&, BasePtr& result) -> ErrCode {
        const ListPtr sensors = ListPtr::create();
        const ListPtr lines = ListPtr::create();
        for (const auto& weak : devices) {
            const auto device = weak.lock();
            const HealthState health = device ? device->getHealthState() : HealthState();
            for (const auto& sensor : health.sensors) {
                sensors.pushBack(toList(sensor));
            }
            for (const auto& line : health.lines) {
                lines.pushBack(toList(line));
            }
        }
        std::string supply;
        int descriptors = 0;
        for (const auto& weak : inputs) {
            const auto device = weak.lock();
            const std::string of = device ? device->getSupplyState() : "";
            // The texts of what is well begin or end with "on".
            supply = supply.empty() || supply.ends_with("on") ? (of.empty() ? supply : of) : supply;
            descriptors = std::max(descriptors, device ? device->getMostDescriptors() : 0);
        }
        result = asBase(ListPtr::create({named("Sensors", asBase(sensors)), named("Lines", asBase(lines)),
                                         named("Supply", toValue(supply)),
                                         named("MostDescriptors", toValue(int64_t{descriptors}))}));
        return Errors::Success;
    };
    state.dataModule.registerProperty(
        PropertyInfoPtr::create(DataModuleConsts::HealthStateProp, CoreType::Func).hidden());
    state.dataModule.setPropertyValue(DataModuleConsts::HealthStateProp,
                                      makeFunc(state.hooks.whileAlive(std::move(answer))));
}

}  // namespace Harvane::RT::Modules::Daq
