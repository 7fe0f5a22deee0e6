#include "modules/daq/objectmodel/Device.h"

#include <algorithm>
#include <cstdint>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/RateDivider.h"

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
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->setParent(shared_from_this());
            child->initialize();
        }
    }
}

std::vector<std::string> Device::checkHardware() {
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            auto errors = child->checkHardware();
            if (!errors.empty()) {
                return errors;
            }
        }
    }
    return {};
}

void Device::initializeHardware() {
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->initializeHardware();
        }
    }
}

void Device::applySynchronization() {
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->applySynchronization();
        }
    }
}

void Device::buildChannelView() {
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->buildChannelView();
        }
    }
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
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->prepareAcquisition(recursive);
        }
    }
}

void Device::initializeAcquisition(bool recursive) {
    channels.initializeAcquisition();
    if (!recursive) {
        return;
    }
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->initializeAcquisition(recursive);
        }
    }
}

void Device::startAcquisition(bool recursive) {
    if (!recursive) {
        return;
    }
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->startAcquisition(recursive);
        }
    }
}

void Device::stopAcquisition(bool recursive) {
    if (!recursive) {
        return;
    }
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->stopAcquisition(recursive);
        }
    }
}

void Device::finalizeAcquisition(bool recursive) {
    if (recursive) {
        for (const auto& element : *this) {
            if (auto* child = asDevice(element)) {
                child->finalizeAcquisition(recursive);
            }
        }
    }
    channels.finalizeAcquisition();
}

void Device::acquireData() {
    channels.beforeAcquireData();
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->acquireData();
        }
    }
    channels.afterAcquireData();
}

void Device::sendData() {
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->sendData();
        }
    }
}

int Device::checkRate(int requested) const {
    int result = clampRate(requested, minRate, maxRate);
    for (const auto& element : *this) {
        if (const auto* child = asDevice(element)) {
            result = child->checkRate(result);
        }
    }
    return result;
}

int Device::checkChannelRate(int channelNumber, int deviceRate, int requested) const {
    const auto& channel = channels.at(static_cast<size_t>(channelNumber));
    const int wanted = clampRate(requested, channel->minRate, channel->maxRate);
    if (channel->sampleType != SampleType::Sync) {
        return wanted;
    }
    const std::int64_t full = checkRate(deviceRate);
    const std::int64_t step = std::max(wanted, 1);
    return static_cast<int>(full / std::max<std::int64_t>((step + full - 1) / step, 1));
}

void Device::setUsedChannels(bool recursive) {
    if (!recursive) {
        return;
    }
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->setUsedChannels(recursive);
        }
    }
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
            channel->setSRDiv(rateDivider(getRate(), channelRate) * divider);
        }
    }
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->setRate(child->checkRate(rate, getRate()));
        }
    }
}

void Device::setRate(int newRate) {
    if (newRate > 0) {
        setSRDiv(rateDivider(rate, newRate));
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
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->setSampleRate(newRate);
        }
    }
    setSRDiv(rateDivider(newRate, checkRate(newRate, newRate)));
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
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->setOperationMode(mode);
        }
    }
}

void Device::setAcqRunning(bool running) {
    acqRunning = running;
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->setAcqRunning(running);
        }
    }
}

void Device::setAcqStopping(bool stopping) {
    acqStopping = stopping;
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            child->setAcqStopping(stopping);
        }
    }
}

Channels Device::getAllChannels() const {
    Channels all(channels);
    for (const auto& element : *this) {
        if (const auto* child = asDevice(element)) {
            const Channels below = child->getAllChannels();
            all.insert(all.end(), below.begin(), below.end());
        }
    }
    return all;
}

DaqVector<std::shared_ptr<Device>> Device::getAllDevices() {
    DaqVector<std::shared_ptr<Device>> all;
    all.push_back(std::static_pointer_cast<Device>(shared_from_this()));
    for (const auto& element : *this) {
        if (auto* child = asDevice(element)) {
            const auto below = child->getAllDevices();
            all.insert(all.end(), below.begin(), below.end());
        }
    }
    return all;
}

}  // namespace Harvane::RT::Modules::Daq
