#include "modules/daq/objectmodel/Device.h"

#include <algorithm>
#include <cstdint>
#include <exception>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/ChannelRate.h"
#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

namespace {

int clampRate(int rate, int minRate, int maxRate) {
    return rate < minRate ? minRate : std::min(rate, maxRate);
}

}  // namespace

Device::~Device() = default;

std::string Device::getDisplayName() const {
    return model.empty() ? getClassName() : model;
}

void Device::initialize() {
    protocolStack.connectionPoint = connectionPoint;
    protocolStack.deviceId = getDeviceId();
    protocolStack.initialize();

    if (auto owner = getParent<Device>()) {
        if (minRate == 0) {
            minRate = owner->minRate;
        }
        if (maxRate == noMaxRate) {
            maxRate = owner->maxRate;
        }
    }
    forEachChild([&](Device& child) {
        child.setParent(shared_from_this());
        child.initialize();
    });
}

std::vector<std::string> Device::checkHardware() {
    std::vector<std::string> errors;
    forEachChild([&](Device& child) {
        if (errors.empty()) {
            errors = child.checkHardware();
        }
    });
    return errors;
}

void Device::initializeHardware() {
    forEachChild([&](Device& child) { child.initializeHardware(); });
}

void Device::applySynchronization() {
    forEachChild([&](Device& child) { child.applySynchronization(); });
}

void Device::buildChannelView() {
    forEachChild([&](Device& child) { child.buildChannelView(); });
    channelView = std::make_shared<ChannelFolder>("Default channel view", false);
    for (const auto& channel : channels) {
        channelView->addChannel(channel);
    }
}

void Device::prepareAcquisition(bool recursive) {
    channels.prepareAcquisition();
    if (!recursive) {
        return;
    }
    forEachChild([&](Device& child) { child.prepareAcquisition(recursive); });
}

void Device::initializeAcquisition(bool recursive) {
    channels.initializeAcquisition();
    if (!recursive) {
        return;
    }
    forEachChild([&](Device& child) { child.initializeAcquisition(recursive); });
}

void Device::startAcquisition(bool recursive) {
    if (!recursive) {
        return;
    }
    forEachChild([&](Device& child) { child.startAcquisition(recursive); });
}

void Device::stopAcquisition(bool recursive) {
    if (!recursive) {
        return;
    }
    forEachChild([&](Device& child) { child.stopAcquisition(recursive); });
}

void Device::finalizeAcquisition(bool recursive) {
    if (recursive) {
        forEachChild([&](Device& child) { child.finalizeAcquisition(recursive); });
    }
    channels.finalizeAcquisition();
}

// Children first, the way out. A failure of one leaves nobody out: each catches its own.
void Device::abortAcquisition() noexcept {
    forEachChild([](Device& child) { child.abortAcquisition(); });
    try {
        channels.finalizeAcquisition();
    } catch (const std::exception& exception) {
        LOG_WARNING << getDisplayName() << ": the channels' memory could not be given back: " << textOf(exception);
    }
}

// A child that fails must not cost the others their samples.
void Device::acquireData() {
    channels.beforeAcquireData();
    std::exception_ptr firstFailure;
    forEachChild([&](Device& child) {
        try {
            child.acquireData();
        } catch (...) {
            firstFailure = firstFailure ? firstFailure : std::current_exception();
        }
    });
    channels.afterAcquireData();
    if (firstFailure) {
        std::rethrow_exception(firstFailure);
    }
}

void Device::sendData() {
    forEachChild([&](Device& child) { child.sendData(); });
}

int Device::checkRate(int requested) const {
    int result = clampRate(requested, minRate, maxRate);
    forEachChild([&](Device& child) { result = child.checkRate(result); });
    return result;
}

int Device::checkChannelRate(int channelNumber, int deviceRate, int requested) const {
    const auto& channel = channels.at(static_cast<size_t>(channelNumber));
    const int wanted = clampRate(requested, channel->minRate, channel->maxRate);
    if (channel->sampleType != SampleType::Sync) {
        return wanted;
    }
    return ChannelRate::atOrBelow(checkRate(deviceRate), std::max(wanted, 1));
}

void Device::setUsedChannels(bool recursive) {
    if (!recursive) {
        return;
    }
    forEachChild([&](Device& child) { child.setUsedChannels(recursive); });
}

unsigned long Device::getDeviceId() const {
    return getClassId();
}

bool Device::hasDeviceRate() const {
    return minRate != 0 || maxRate != noMaxRate;
}

int Device::getRate() const {
    return rate / std::max(srDiv, 1);
}

int Device::checkRate(int baseRate, int requested) const {
    const std::int64_t base = baseRate;
    const std::int64_t own = checkRate(requested);
    if (own > base) {
        return static_cast<int>(own);
    }
    if (own < 1) {
        return -1;
    }
    // Neighbouring dividers often give one and the same quotient: only the first of each group is looked at.
    std::int64_t divider = (own + base - 1) / own;
    while (divider < base) {
        const std::int64_t candidate = base / divider;
        if (base % candidate == 0 && checkRate(static_cast<int>(candidate)) == candidate) {
            return static_cast<int>(candidate);
        }
        divider = base / candidate + 1;
    }
    return -1;
}

void Device::setSRDiv(int divider) {
    if (divider < 1) {
        return;
    }
    srDiv = divider;
    for (const auto& channel : channels) {
        if (channel->sampleType == SampleType::Sync) {
            const int channelRate = checkChannelRate(channel->number, getRate(), getRate());
            channel->setSRDiv(ChannelRate::of(getRate(), channelRate).divider * divider);
        }
    }
    forEachChild([&](Device& child) { child.setRate(child.checkRate(rate, getRate())); });
}

void Device::setRate(int newRate) {
    if (newRate > 0) {
        setSRDiv(ChannelRate::of(rate, newRate).divider);
    }
}

void Device::setSampleRate(int newRate) {
    if (minRate > newRate) {
        throw DaqException("Sample rate out of bounds.");
    }
    rate = newRate;
    for (const auto& channel : channels) {
        channel->deviceRate = newRate;
    }
    forEachChild([&](Device& child) { child.setSampleRate(newRate); });
    setSRDiv(ChannelRate::of(newRate, checkRate(newRate, newRate)).divider);
}

void Device::setMaxChannelsCount(int count) {
    channels.maxChannels = count;
}

bool Device::channelExists(const std::shared_ptr<Channel>& channel) const {
    return std::find(channels.begin(), channels.end(), channel) != channels.end();
}

void Device::setOperationMode(OperationMode mode) {
    operationMode = mode;
    channels.operationMode = mode;
    forEachChild([&](Device& child) { child.setOperationMode(mode); });
}

void Device::setAcqRunning(bool running) {
    acqRunning = running;
    forEachChild([&](Device& child) { child.setAcqRunning(running); });
}

void Device::setAcqStopping(bool stopping) {
    acqStopping = stopping;
    forEachChild([&](Device& child) { child.setAcqStopping(stopping); });
}

Channels Device::getAllChannels() const {
    Channels all(static_cast<const Channels&>(channels));
    forEachChild([&](Device& child) {
        const Channels below = child.getAllChannels();
        all.insert(all.end(), below.begin(), below.end());
    });
    return all;
}

DaqVector<std::shared_ptr<Device>> Device::getAllDevices() {
    DaqVector<std::shared_ptr<Device>> all;
    all.push_back(std::static_pointer_cast<Device>(shared_from_this()));
    forEachChild([&](Device& child) {
        const auto below = child.getAllDevices();
        all.insert(all.end(), below.begin(), below.end());
    });
    return all;
}

}  // namespace Harvane::RT::Modules::Daq
