#include "modules/daq/bridge/DaqStructure.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <zorn/structure/property_classes.h>

#include "modules/daq/amplifier/DaqAmplifier.h"
#include "modules/daq/bridge/CntProperties.h"
#include "modules/daq/bridge/DaqChannelBuffer.h"
#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/HostValues.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CntChannel.h"
#include "modules/daq/objectmodel/DaqLoop.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

// What the user has set on a channel of these kinds.
void readBack(const std::shared_ptr<Channel>& channel, const ChannelPtr<IChannel>& hostChannel) {
    if (const auto can = std::dynamic_pointer_cast<CANChannel>(channel); can && !can->isControl) {
        can->baudRate = intOf(hostChannel.getPropertyValue(OutputChannelConsts::BaudRateProp));
        const auto mode = hostChannel.getPropertyValue<std::string>(OutputChannelConsts::OperationModeProp);
        can->writeEnable = mode != OutputChannelConsts::ReadOnlyMode ? 1 : 0;
    }
    if (const auto counter = std::dynamic_pointer_cast<CntChannel>(channel); counter && counter->hasCntSettings()) {
        CntProperties::readBack(hostChannel.getParent(), *counter);
    }
}

// Samples that a ring must hold at least: two seconds, in whole granules.
unsigned long leastRing(const Channel& channel) {
    const auto samples = 2 * static_cast<unsigned long>(std::max(channel.getRate(), 0));
    const unsigned long granule = std::max<unsigned long>(channel.bufferGranularity, 1);
    return std::max(samples - samples % granule, granule);
}

}  // namespace

void requireStep(const DaqController& controller, AcquisitionStep step) {
    const std::string refusal = refusalOf(step, controller.phase());
    if (!refusal.empty()) {
        throw InvalidStateException("%s", refusal.c_str());
    }
}

DaqStructure::DaqStructure(DaqController& controller)
    : state_(controller),
      rates_(state_),
      synchronization_(state_),
      tree_(state_, rates_, synchronization_, [this] { beforeStart(); }) {}

DaqStructure::~DaqStructure() = default;

void DaqStructure::forget() noexcept {
    if (!isBuilt()) {
        return;
    }
    state_.hooks.end();
    state_.amplifiers.clear();
    state_.channelBuffers.clear();
    state_.channels.clear();
    state_.devices.clear();
}

void DaqStructure::initialize() {
    const UpdatingScope scope(state_);
    for (const auto& [channel, hostChannel] : state_.channels) {
        hostChannel.setPropertyValue(DaqChannelConsts::PhaseDelayProp, channel->phaseDelay);
        hostChannel.setPropertyValue(ChannelPropertyClass::ShouldReserveMemoryProp, !channel->noReserve);
    }
}

void DaqStructure::initializeLoop(const DataPtr& data, const DataModulePtr& dataModule) {
    const auto loop = state_.controller.loopDevice;
    if (!loop) {
        return;
    }
    constexpr int modeWithOwnRate = 2;
    int cycleRate = 20;
    if (data.getPropertyValue<int64_t>(DataModuleConsts::OperationModeProp) == modeWithOwnRate) {
        cycleRate = intOf(dataModule.getPropertyValue(DataModuleConsts::CycleRateProp));
    }
    loop->cycleRate = loop->checkCycleRate(cycleRate);
}

// The host's memory as the buffer of the coming run.
std::shared_ptr<IChannelBuffer> DaqStructure::hostBuffer(Channel& channel, const ChannelPtr<IChannel>& hostChannel) {
    auto buffer = std::make_shared<DaqChannelBuffer>(hostChannel);
    const char* name = channel.name.c_str();
    if (buffer->getPosition() != 0) {
        throw InvalidStateException(
            "The ring of channel \"%s\" still stands at sample %lu: its memory must be reserved again before a start.",
            name, buffer->getPosition());
    }
    if (!channel.noReserve && buffer->getCapacity() < leastRing(channel)) {
        throw InvalidStateException(
            "The ring of channel \"%s\" holds %lu samples, less than two seconds at %d samples/s (%lu): its memory "
            "must "
            "be reserved again before a start.",
            name, buffer->getCapacity(), channel.getRate(), leastRing(channel));
    }
    return buffer;
}

void DaqStructure::beforeStart() {
    requireStep(state_.controller, AcquisitionStep::BeforeStart);
    const UpdatingScope scope(state_);

    // All buffers are there before the first one is exchanged.
    struct Choice {
        bool used;
        std::shared_ptr<IChannelBuffer> buffer;  // of a synchronous channel
    };
    std::vector<Choice> choices;
    for (const auto& [channel, hostChannel] : state_.channels) {
        const bool used = hostChannel.getActive();
        std::shared_ptr<IChannelBuffer> buffer;
        if (isSync(*channel)) {
            buffer = used ? hostBuffer(*channel, hostChannel) : state_.channelBuffers.at(channel);
        }
        choices.push_back({used, std::move(buffer)});
    }
    // An earlier set-up writes into the buffers that go now.
    state_.controller.abortAcquisition();
    for (size_t i = 0; i < choices.size(); ++i) {
        const auto& [channel, hostChannel] = state_.channels[i];
        channel->used = choices[i].used;
        readBack(channel, hostChannel);
        if (choices[i].buffer) {
            if (channel->used) {
                state_.channelBuffers.at(channel)->setCapacity(0);
            }
            channel->buffer = std::move(choices[i].buffer);
        }
    }
    for (const auto& amplifier : state_.amplifiers) {
        amplifier->update(false);
    }
    state_.controller.initializeAcquisition();
    try {
        updateScaleFactors();
    } catch (...) {
        state_.controller.invalidate();
        throw;
    }
}

bool DaqStructure::isCurrent() const {
    return std::all_of(state_.channels.begin(), state_.channels.end(), [](const auto& entry) {
        const auto& [channel, hostChannel] = entry;
        if (channel->used != hostChannel.getActive()) {
            return false;
        }
        const auto* buffer = dynamic_cast<const DaqChannelBuffer*>(channel->buffer.get());
        return buffer == nullptr || buffer->isCurrent();
    });
}

void DaqStructure::updateScaleFactors() {
    const UpdatingScope scope(state_);
    for (const auto& amplifier : state_.amplifiers) {
        amplifier->update(false);
    }
    for (const auto& [channel, hostChannel] : state_.channels) {
        // What an amplifier has only taken now counts too: scale and range are those of what is in force.
        if (const auto analogInput = std::dynamic_pointer_cast<AIChannel>(channel)) {
            analogInput->prepareScaleFactors();
        }
        hostChannel.setScale(channel->scale);
        hostChannel.setOffset(channel->offset);
        hostChannel.setMinValue(channel->minValue);
        hostChannel.setMaxValue(channel->maxValue);
        hostChannel.setUnit(channel->unit);
    }
}

}  // namespace Harvane::RT::Modules::Daq
