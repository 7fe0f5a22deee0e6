#pragma once

#include <memory>

#include "modules/daq/objectmodel/DaqDateTime.h"
#include "modules/daq/objectmodel/DaqDevice.h"

namespace Harvane::RT::Modules::Daq {

// A device of nothing but the CAN interfaces that the system has.
class CANSocketDevice : public DaqDevice {
public:
    CANSocketDevice();

    void startAcquisition(bool recursive) override;
    SynchronizationOptions getSynchronizationOptions() override;
    std::shared_ptr<CANDevice> createCANDevice() override;

    // Of the last start; undefined before the first one.
    const DaqDateTime& getDate() const { return date_; }

private:
    DaqDateTime date_;
};

}  // namespace Harvane::RT::Modules::Daq
