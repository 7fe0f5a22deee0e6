#include "modules/daq/objectmodel/AIDevice.h"

#include <algorithm>

#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/DaqDevice.h"

namespace Harvane::RT::Modules::Daq {

std::string AIDevice::getDisplayName() const {
    return "Analog inputs";
}

void AIDevice::initializeHardware() {
    Device::initializeHardware();
    for (int i = 0; i < channels.maxChannels; ++i) {
        auto channel = std::make_shared<AIChannel>(i);
        channels.push_back(channel);
        auto amplifier = createAmplifier(i);
        amplifier->setParent(shared_from_this());
        amplifier->index = i;
        channel->amplifier = amplifier;
        setChannelProperties(channel);
        channel->initialize();
        amplifier->notifyLeaveChSetup();
    }
}

int AIDevice::getBaseClockForSampleRate(int) {
    return baseClock;
}

std::shared_ptr<Amplifier> AIDevice::createAmplifier(int) {
    return std::make_shared<Amplifier>();
}

void AIDevice::setChannelProperties(std::shared_ptr<AIChannel> channel) {
    channel->name = "AI " + std::to_string(channel->number + 1);
    channel->resolution = resolution;
    channel->isFloat = floatSamples;
    if (auto device = getParent<DaqDevice>()) {
        channel->minRate = device->minRate;
        channel->maxRate = device->maxRate;
    }
    auto& amplifier = *channel->amplifier;
    amplifier.clearRanges();
    amplifier.addRangeValue("10");
    amplifier.clearMinValues();
    amplifier.addMinValue(-1.0);
    amplifier.clearMaxValues();
    amplifier.addMaxValue(10.0);
}

void AIDevice::onBaseClockChanged() {}

bool AIDevice::runsAt(int clock) {
    return clock == baseClock;
}

std::string AIDevice::getSupplyState() {
    return {};
}

int AIDevice::getMostDescriptors() const {
    return 0;
}

void AIDevice::setBaseClock(int clock) {
    if (clock < 1 || std::find(baseClocks.begin(), baseClocks.end(), clock) == baseClocks.end() || runsAt(clock)) {
        return;
    }
    baseClock = clock;
    onBaseClockChanged();
}

std::shared_ptr<AIChannel> AIDevice::getAIChannel(int index) const {
    return std::dynamic_pointer_cast<AIChannel>(channels.at(static_cast<size_t>(index)));
}

}  // namespace Harvane::RT::Modules::Daq
