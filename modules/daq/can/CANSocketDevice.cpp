#include "modules/daq/can/CANSocketDevice.h"

#include "modules/daq/can/CanSocketSubDevice.h"

namespace Harvane::RT::Modules::Daq {

CANSocketDevice::CANSocketDevice() : date_(2000, 1, 1, 0, 0, 0, 0) {
    manufacturer = "Harvane";
    model = "CAN";
}

void CANSocketDevice::startAcquisition(bool recursive) {
    DaqDevice::startAcquisition(recursive);
    date_ = DaqDateTime::getLocalTime();
}

SynchronizationOptions CANSocketDevice::getSynchronizationOptions() {
    return {Synchronization::CreateSyncOption(SynchronizationMode::SoftSync, {}),
            Synchronization::CreateSyncOption(SynchronizationMode::Standalone, {})};
}

std::shared_ptr<CANDevice> CANSocketDevice::createCANDevice() {
    constexpr std::uint16_t allPorts = 0xFFFF;
    return std::make_shared<CanSocketSubDevice>(allPorts);
}

}  // namespace Harvane::RT::Modules::Daq
