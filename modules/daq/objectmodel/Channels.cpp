#include "modules/daq/objectmodel/Channels.h"

#include <algorithm>

#include "modules/daq/objectmodel/Channel.h"

namespace Harvane::RT::Modules::Daq {

namespace {

template <class Predicate>
Channels select(const Channels& channels, Predicate wanted) {
    Channels selected;
    std::copy_if(channels.begin(), channels.end(), std::back_inserter(selected),
                 [&](const std::shared_ptr<Channel>& channel) { return wanted(*channel); });
    return selected;
}

/// Folds the counts of the active synchronous channels at the full rate; 0 without any.
template <class Choice>
std::uint64_t foldSamples(const Channels& channels, Choice choose) {
    std::uint64_t result = 0;
    bool first = true;
    for (const auto& channel : channels) {
        if (!channel->active || channel->sampleType != SampleType::Sync) {
            continue;
        }
        const std::uint64_t samples = static_cast<std::uint64_t>(channel->srDiv) * channel->samplesAcquired.get();
        result = first ? samples : choose(result, samples);
        first = false;
    }
    return result;
}

}

Channels Channels::getActiveChannels() const {
    return select(*this, [](const Channel& channel) { return channel.active; });
}

std::shared_ptr<Channel> Channels::getFirstActiveChannel() const {
    auto it = std::find_if(begin(), end(), [](const std::shared_ptr<Channel>& channel) { return channel->active; });
    return it == end() ? nullptr : *it;
}

Channels Channels::getChannelsBySampleType(SampleType sampleType) const {
    return select(*this, [&](const Channel& channel) { return channel.sampleType == sampleType; });
}

Channels Channels::getOutChannels() const {
    return select(*this, [](const Channel& channel) { return channel.isControl; });
}

Channels Channels::getInChannels() const {
    return select(*this, [](const Channel& channel) { return !channel.isControl; });
}

std::uint64_t Channels::getMinSamplesAcquired() const {
    return foldSamples(*this, [](std::uint64_t a, std::uint64_t b) { return std::min(a, b); });
}

std::uint64_t Channels::getMaxSamplesAcquired() const {
    return foldSamples(*this, [](std::uint64_t a, std::uint64_t b) { return std::max(a, b); });
}

}
