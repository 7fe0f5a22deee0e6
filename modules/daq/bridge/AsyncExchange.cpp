#include "modules/daq/bridge/AsyncExchange.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "modules/daq/bridge/DaqStructureConsts.h"
#include "modules/daq/bridge/HostValues.h"
#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

int64_t toTicks(double value) {
    constexpr double limit = 9.2e18;
    return std::isnan(value) ? 0 : static_cast<int64_t>(std::clamp(value, -limit, limit));
}

void AsyncExchange::registerLosses(const ChannelsMap& channels, HostHooks& hooks) {
    losses_.clear();
    for (const auto& [channel, hostChannel] : channels) {
        Count count;
        if (channel->sampleType == SampleType::Async) {
            count = std::make_shared<std::atomic<int64_t>>(0);
            hostChannel.registerProperty(
                PropertyInfoPtr::create(DaqChannelConsts::LostSamplesProp, CoreType::Func).hidden());
            hostChannel.setPropertyValue(DaqChannelConsts::LostSamplesProp,
                                         makeFunc(hooks.whileAlive([count](const BasePtr&, BasePtr& result) -> ErrCode {
                                             result = toValue(count->load(std::memory_order_relaxed));
                                             return Errors::Success;
                                         })));
        }
        losses_.push_back(std::move(count));
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
            entry.lost = std::make_shared<std::atomic<int64_t>>(0);
        }
        entry.lost->store(0, std::memory_order_relaxed);
        (channel->isControl ? outputs_ : inputs_).push_back(std::move(entry));
    }
}

void AsyncExchange::receive() {
    for (Entry& entry : inputs_) {
        receive(entry);
    }
}

void AsyncExchange::send() {
    for (Entry& entry : outputs_) {
        // An output that takes no part has no memory.
        if (entry.channel->active) {
            send(entry);
        }
    }
}

// What of the missing samples is still there; the rest is lost.
int64_t AsyncExchange::limit(Entry& entry, int64_t missing, int64_t available) {
    const int64_t lostBefore = entry.lost->load(std::memory_order_relaxed);
    const int64_t count = missing - lostBefore;
    if (count <= available) {
        if (count > 0 && entry.losing) {
            entry.losing = false;
            if (lostBefore != entry.told) {
                LOG_(0, plog::error) << "Channel \"" << entry.channel->name << "\" has lost " << lostBefore
                                     << " asynchronous samples in this run; its samples are passed on again";
                entry.told = lostBefore;
            }
        }
        return std::max<int64_t>(count, 0);
    }
    const int64_t lost = lostBefore + count - available;
    entry.lost->store(lost, std::memory_order_relaxed);
    if (!entry.losing) {
        entry.losing = true;
        entry.told = lost;
        LOG_(0, plog::error) << "Channel \"" << entry.channel->name << "\" has lost " << lost
                             << " asynchronous samples in this run: its ring no longer held them when they were to be "
                                "passed on";
    }
    return available;
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
