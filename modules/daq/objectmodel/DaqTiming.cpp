#include "modules/daq/objectmodel/DaqTiming.h"

#include "modules/daq/objectmodel/DaqDevice.h"

namespace Harvane::RT::Modules::Daq {

ClockState DaqTiming::getClockState() {
    ClockState state;
    getCurrentTime(state.tracking, state.error);
    return state;
}

std::shared_ptr<DaqDevice> DaqTiming::getDaqDevice() const {
    return getParent<DaqDevice>();
}

}  // namespace Harvane::RT::Modules::Daq
