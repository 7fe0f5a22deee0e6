#pragma once

#include <memory>

#include "modules/daq/objectmodel/DaqObject.h"

namespace Harvane::RT::Modules::Daq {

class DaqDevice;

// Acquisition-relative time of a DaqDevice, which is its parent. getCurrentTime may be called from any thread.
class DaqClock : public DaqObject {
public:
    // At the end of the device's own initializeAcquisition: its channels are settled.
    virtual void initializeAcquisition();
    virtual void startAcquisition();
    // Seconds since the start of the acquisition, -1.0 while there is no time. The argument has no meaning yet.
    virtual double getCurrentTime(bool update) = 0;

    std::shared_ptr<DaqDevice> getDaqDevice() const;

    bool needsChannel = false;  // The clock wants a synchronous channel running even if the user selected none.
};

}  // namespace Harvane::RT::Modules::Daq
