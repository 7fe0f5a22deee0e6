#include "modules/daq/objectmodel/DeviceChannels.h"

#include "modules/daq/objectmodel/Channel.h"

namespace Harvane::RT::Modules::Daq {

void DeviceChannels::prepareAcquisition() {
    for (const auto& channel : *this) {
        channel->prepareAcquisition();
    }
}

void DeviceChannels::initializeAcquisition() {
    activeChannelCount = 0;
    for (const auto& channel : *this) {
        channel->active = (channel->used || channel->enableFirst || operationMode == 0) && channel->enabled;
        if (channel->active) {
            ++activeChannelCount;
        }
        channel->initializeAcquisition();
    }
}

void DeviceChannels::beforeAcquireData() {
    for (const auto& channel : *this) {
        if (channel->active) {
            channel->beforeAcquireData();
        }
    }
}

void DeviceChannels::afterAcquireData() {
    for (const auto& channel : *this) {
        if (channel->active) {
            channel->afterAcquireData();
        }
    }
}

void DeviceChannels::finalizeAcquisition() {
    for (const auto& channel : *this) {
        channel->finalizeAcquisition();
    }
}

}
