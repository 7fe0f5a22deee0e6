#include "modules/daq/objectmodel/AIChannel.h"

#include <cmath>

#include "modules/daq/objectmodel/Amplifier.h"

namespace Harvane::RT::Modules::Daq {

AIChannel::AIChannel(int number) : Channel(number) {
    sampleType = SampleType::Sync;
}

AIChannel::~AIChannel() = default;

void AIChannel::initialize() {
    createAnalogBuffer(resolution);
    if (!amplifier) {
        amplifier = std::make_shared<Amplifier>();
    }
    amplifier->initialize();
}

void AIChannel::initializeAcquisition() {
    Channel::initializeAcquisition();
    amplifier->update();
    prepareScaleFactors();
}

void AIChannel::prepareScaleFactors() {
    unit = amplifier->rangeUnit;
    minValue = amplifier->getMinValue();
    maxValue = amplifier->getMaxValue();
    const double step = isFloat ? 1.0 : (maxValue - minValue) / std::ldexp(1.0, resolution);
    scale = step * amplifier->getScale();
    offset = amplifier->getOffset();
}

}  // namespace Harvane::RT::Modules::Daq
