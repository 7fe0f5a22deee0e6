#include "modules/daq/objectmodel/ChannelFolder.h"

namespace Harvane::RT::Modules::Daq {

ChannelFolder::ChannelFolder(const std::string& name, bool sharedInputs) : sharedInputs(sharedInputs), name(name) {}

std::string ChannelFolder::getDisplayName() const {
    return name;
}

void ChannelFolder::addChannel(const std::shared_ptr<Channel>& channel) {
    channels.push_back(channel);
}

void ChannelFolder::clearChannels() {
    channels.clear();
}

}  // namespace Harvane::RT::Modules::Daq
