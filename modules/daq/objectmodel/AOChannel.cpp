#include "modules/daq/objectmodel/AOChannel.h"

#include <cmath>

namespace Harvane::RT::Modules::Daq {

AOChannel::AOChannel(int number) : Channel(number) {
    sampleType = SampleType::Async;
    maxRate = 1000;
    isControl = true;
    unit.assign(1, 'V');  // assigning a text makes g++ 12 warn falsely
}

void AOChannel::initialize() {
    createAnalogBuffer(resolution);
}

void AOChannel::initializeAcquisition() {
    Channel::initializeAcquisition();
    prepareScaleFactors();
}

void AOChannel::prepareScaleFactors() {
    scale = isFloat ? 1.0 : (maxValue - minValue) / std::ldexp(1.0, resolution);
    offset = 0.0;
}

}  // namespace Harvane::RT::Modules::Daq
