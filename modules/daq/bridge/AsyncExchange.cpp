#include "modules/daq/bridge/AsyncExchange.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/HostValues.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

constexpr LossCount::Words lostSamples{
    DaqChannelConsts::LostSamplesProp, "has lost",
    "asynchronous samples in this run: its ring no longer held them when they were to be passed on",
    "asynchronous samples in this run; its samples are passed on again"};

std::shared_ptr<LossCount> lostIn(const Channel& channel) {
    return std::make_shared<LossCount>("Channel \"" + channel.name + "\"", lostSamples);
}

}  // namespace

int64_t toTicks(double value) {
    constexpr double limit = 9.2e18;
    return std::isnan(value) ? 0 : static_cast<int64_t>(std::clamp(value, -limit, limit));
}

void AsyncExchange::registerLosses(const ChannelsMap& channels, HostHooks& hooks) {
    losses_.clear();
    for (const auto& [channel, hostChannel] : channels) {
        if (channel->sampleType != SampleType::Async) {
            losses_.emplace_back();
            continue;
        }
        losses_.push_back(lostIn(*channel));
        std::vector<Count> counts = channel->losses;
        counts.push_back(losses_.back());
        for (const Count& count : counts) {
            hostChannel.registerProperty(PropertyInfoPtr::create(count->property(), CoreType::Func).hidden());
            hostChannel.setPropertyValue(count->property(),
                                         makeFunc(hooks.whileAlive([count](const BasePtr&, BasePtr& result) -> ErrCode {
                                             result = toValue(count->get());
                                             return Errors::Success;
                                         })));
        }
    }
}

void AsyncExchange::prepare(const ChannelsMap& channels) {
    inputs_.clear();
    outputs_.clear();
    for (size_t i = 0; i < channels.size(); ++i) {
        const auto& [channel, hostChannel] = channels[i];
        if (channel->sampleType != SampleType::Async) {
            continue;
        }
        Entry entry;
        entry.channel = channel;
        entry.host = hostChannel.asPtr<IAsyncChannel>();
        entry.hostBuffer = hostChannel.getBuffer();
        entry.lost = i < losses_.size() ? losses_[i] : nullptr;
        if (!entry.lost) {
            entry.lost = lostIn(*channel);
        }
        entry.lost->reset();
        (channel->isControl ? outputs_ : inputs_).push_back(std::move(entry));
    }
}

void AsyncExchange::receive() {
    for (Entry& entry : inputs_) {
        if (entry.channel->active) {
            receive(entry);
        }
    }
}

void AsyncExchange::send() {
    for (Entry& entry : outputs_) {
        // One that takes no part has no memory.
        if (entry.channel->active) {
            send(entry);
        }
    }
}

// What of the missing samples is still there; the rest is lost.
int64_t AsyncExchange::limit(Entry& entry, int64_t missing, int64_t available) {
    const int64_t count = missing - entry.lost->get();
    if (count > available) {
        entry.lost->add(count - available);
    }
    entry.lost->endOfPass(count > 0);
    return std::clamp<int64_t>(count, 0, available);
}

void AsyncExchange::receive(Entry& entry) const {
    Channel& channel = *entry.channel;
    long held = 0;
    checkErrorInfo(entry.host->getSamplesAcquired(&held));
    const int64_t missing = static_cast<int64_t>(channel.samplesAcquired.get()) - held;
    if (missing <= 0) {
        return;
    }
    const int64_t available =
        channel.timeBuffer ? static_cast<int64_t>(std::min(channel.buffer->getSize(), channel.timeBuffer->getSize()))
                           : 0;
    for (int relative = static_cast<int>(-limit(entry, missing, available)); relative < 0; ++relative) {
        const double time = channel.getTimeAtRelativePos(relative);
        const void* sample = channel.buffer->getSample(channel.getPosAtRelativePos(relative));
        checkErrorInfo(entry.host->addSample(toTicks(static_cast<double>(clockBase_) * time), sample));
    }
}

void AsyncExchange::send(Entry& entry) const {
    Channel& channel = *entry.channel;
    long held = 0;
    checkErrorInfo(entry.host->getSamplesAcquired(&held));
    const int64_t missing = held - static_cast<int64_t>(channel.samplesAcquired.get());
    if (missing <= 0) {
        return;
    }
    const auto& source = entry.hostBuffer;
    IChannelBuffer& target = *channel.buffer;
    const int64_t count = limit(entry, missing, static_cast<int64_t>(source.getSize()));
    const int64_t capacity = static_cast<int64_t>(source.getCapacity());
    const int64_t position = static_cast<int64_t>(source.getPosition());
    const size_t sampleSize = target.getSampleSize();
    for (int64_t k = 0; k < count; ++k) {
        // incSamplePosition has the same test, but runs behind the copy.
        if (channel.samplesThisCycle + 1 >= target.getCapacity()) {
            throw DataLostException();
        }
        int64_t place = position - (count - k);
        if (place < 0) {
            place += capacity;
        }
        long timestamp = 0;
        checkErrorInfo(entry.host->getTimestampAtPos(static_cast<size_t>(place), &timestamp));
        void* sample = nullptr;
        checkErrorInfo(entry.host->getSampleAddressAtPos(static_cast<size_t>(place), &sample));
        std::memcpy(target.getSample(target.getPosition()), sample, sampleSize);
        // Both rings start at 0 and advance together, so the time lands at the same index.
        if (channel.timeBuffer && channel.timeBuffer->getCapacity() > 0) {
            channel.addTimeToBuffer(static_cast<double>(timestamp) / static_cast<double>(clockBase_));
        }
        channel.incSamplePosition(1);
    }
}

}  // namespace Harvane::RT::Modules::Daq
