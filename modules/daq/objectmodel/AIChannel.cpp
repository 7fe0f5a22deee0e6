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
    ++run;
    Channel::initializeAcquisition();
    amplifier->update();
    prepareScaleFactors();
}

void AIChannel::prepareScaleFactors() {
    unit = amplifier->settingsInForce()->rangeUnit;
    minValue = amplifier->getMinValue();
    maxValue = amplifier->getMaxValue();
    scale = quantum() * amplifier->getScale();
    offset = amplifier->getOffset();
}

double AIChannel::quantum() const {
    return isFloat ? 1.0 : (amplifier->getMaxValue() - amplifier->getMinValue()) / std::ldexp(1.0, resolution);
}

}  // namespace Harvane::RT::Modules::Daq
