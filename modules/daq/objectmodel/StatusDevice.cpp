#include "modules/daq/objectmodel/StatusDevice.h"

#include "modules/daq/objectmodel/StatusChannel.h"

namespace Harvane::RT::Modules::Daq {

std::string StatusDevice::getDisplayName() const {
    return "Statuses";
}

void StatusDevice::initializeHardware() {
    SubDevice::initializeHardware();
    setMaxChannelsCount(static_cast<int>(statusChannelTypes.size()));
    channels.clear();
    for (int index = 0; index < channels.maxChannels; ++index) {
        channels.push_back(createStatusChannel(index));
    }
}

void StatusDevice::addStatusChannel(StatusChannelType type) {
    statusChannelTypes.push_back(type);
}

std::shared_ptr<StatusChannel> StatusDevice::createStatusChannel(int index) const {
    auto channel = std::make_shared<StatusChannel>(index, statusChannelTypes.at(static_cast<size_t>(index)));
    channel->initialize();
    return channel;
}

std::shared_ptr<StatusChannel> StatusDevice::getStatusChannel(int index) const {
    return std::dynamic_pointer_cast<StatusChannel>(channels.at(static_cast<size_t>(index)));
}

std::shared_ptr<StatusChannel> StatusDevice::getStatusChannel(StatusChannelType type) const {
    for (const auto& channel : channels) {
        auto found = std::dynamic_pointer_cast<StatusChannel>(channel);
        if (found && found->statusChannelType == type) {
            return found;
        }
    }
    return nullptr;
}

HealthState StatusDevice::getHealthState() {
    return {};
}

}  // namespace Harvane::RT::Modules::Daq
