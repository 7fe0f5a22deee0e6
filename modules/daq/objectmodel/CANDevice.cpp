#include "modules/daq/objectmodel/CANDevice.h"

#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"

namespace Harvane::RT::Modules::Daq {

namespace {

std::string portName(const CANChannel& channel) {
    return "CAN Port " + std::to_string(channel.getPortIndex() + 1);
}

}  // namespace

std::string CANDevice::getDisplayName() const {
    return "CAN interfaces";
}

void CANDevice::initializeHardware() {
    SubDevice::initializeHardware();
    channels.clear();
    for (int index = 0; index < channels.maxChannels; ++index) {
        const auto channel = std::make_shared<CANChannel>(index);
        channel->isControl = hasOutputChannels && (index & 1) != 0;
        channels.push_back(channel);
        setChannelProperties(*channel);
        channel->initialize();
    }
}

void CANDevice::setChannelProperties(CANChannel& channel) {
    channel.name = portName(channel) + (channel.isControl ? " Output" : " Input");
}

void CANDevice::buildChannelView() {
    SubDevice::buildChannelView();
    channelView->clearChannels();
    std::shared_ptr<ChannelFolder> folder;
    for (const auto& channel : channels) {
        const auto can = std::dynamic_pointer_cast<CANChannel>(channel);
        if (can && (!can->isControl || !folder)) {
            folder = std::make_shared<ChannelFolder>(portName(*can), false);
            channelView->push_back(folder);
        }
        if (folder) {
            folder->addChannel(channel);
        }
    }
}

std::shared_ptr<CANChannel> CANDevice::getCANChannel(int index) const {
    return std::dynamic_pointer_cast<CANChannel>(channels.at(static_cast<size_t>(index)));
}

}  // namespace Harvane::RT::Modules::Daq
