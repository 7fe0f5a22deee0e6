#pragma once

#include "modules/daq/bridge/BridgeState.h"

namespace Harvane::RT::Modules::Daq {

// Puts "HealthState" (hidden) on the data module, where a device has a status part: a function that any thread may call
// as long as the module lives. It answers the list
//   ["Sensors", list of sensors], ["Lines", list of lines], ["Supply", text], ["MostDescriptors", number]
// of all devices (supply and descriptors as AIDevice has them, of the device that is worst off), each sensor a list of
// [name, value] with "Group", "Name", "Place", "Celsius", "Ok", "Reason", "Reads", "Failures" and "AgeSeconds", each
// line one with "Name", "Place", "Value" and "Reason": HealthState says what they are. Asking keeps the sensors being
// read, for 20 s; how old a value is then stands at KestrixStatus::getHealthState.
class HostHealth {
public:
    static void registerProperties(BridgeState& state);
};

}  // namespace Harvane::RT::Modules::Daq
