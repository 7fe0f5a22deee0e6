#include "modules/daq/objectmodel/CANChannel.h"

#include "modules/daq/objectmodel/CanMessage.h"

namespace Harvane::RT::Modules::Daq {

CANChannel::CANChannel(int number) : Channel(number) {
    sampleType = SampleType::Async;
    maxRate = 5000;
    asyncRate = 5000;
}

void CANChannel::initialize() {
    createChannelBuffer<CanMessage>();
}

int CANChannel::getPortIndex() const {
    return number / 2;
}

std::vector<int> CANChannel::getBaudRates() const {
    return {1000000, 500000, 400000, 250000, 200000, 125000, 100000, 62500, 50000, 33333, 31250};
}

}  // namespace Harvane::RT::Modules::Daq
