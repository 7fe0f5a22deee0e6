#include "modules/daq/objectmodel/DeviceChannels.h"

#include "modules/daq/objectmodel/Channel.h"

namespace Harvane::RT::Modules::Daq {

void DeviceChannels::prepareAcquisition() {
    for (const auto& channel : *this) {
        channel->prepareAcquisition();
    }
}

void DeviceChannels::initializeAcquisition() {
    active_.clear();
    hooked_.clear();
    for (const auto& channel : *this) {
        channel->active = (channel->used || channel->enableFirst || operationMode == 0) && channel->enabled;
        if (channel->active) {
            active_.push_back(channel);
            if (channel->hasCycleHooks()) {
                hooked_.push_back(channel);
            }
        }
        channel->initializeAcquisition();
    }
    activeChannelCount = static_cast<int>(active_.size());
}

void DeviceChannels::beforeAcquireData() {
    for (const auto& channel : active_) {
        channel->samplesThisCycle = 0;
    }
    for (const auto& channel : hooked_) {
        channel->beforeAcquireData();
    }
}

void DeviceChannels::afterAcquireData() {
    for (const auto& channel : hooked_) {
        channel->afterAcquireData();
    }
}

void DeviceChannels::finalizeAcquisition() {
    for (const auto& channel : *this) {
        channel->finalizeAcquisition();
    }
}

}  // namespace Harvane::RT::Modules::Daq
