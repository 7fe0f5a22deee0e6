#include "modules/daq/objectmodel/DaqClock.h"

#include "modules/daq/objectmodel/DaqDevice.h"

namespace Harvane::RT::Modules::Daq {

void DaqClock::initializeAcquisition() {}

void DaqClock::startAcquisition() {}

std::shared_ptr<DaqDevice> DaqClock::getDaqDevice() const {
    return getParent<DaqDevice>();
}

}  // namespace Harvane::RT::Modules::Daq
