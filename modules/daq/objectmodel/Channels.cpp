#include "modules/daq/objectmodel/Channels.h"

#include <algorithm>
#include <limits>

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

}  // namespace

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
    return getSamplesAcquired().least;
}

std::uint64_t Channels::getMaxSamplesAcquired() const {
    return getSamplesAcquired().most;
}

Channels::SamplesAcquired Channels::getSamplesAcquired() const {
    SamplesAcquired all{std::numeric_limits<std::uint64_t>::max(), 0, 0};
    for (const auto& channel : *this) {
        if (channel->active && channel->sampleType == SampleType::Sync) {
            const std::uint64_t samples = static_cast<std::uint64_t>(channel->srDiv) * channel->samplesAcquired.get();
            all.least = std::min(all.least, samples);
            all.most = std::max(all.most, samples);
            all.sum += samples;
        }
    }
    // Without a channel the two have not met.
    all.least = std::min(all.least, all.most);
    return all;
}

}  // namespace Harvane::RT::Modules::Daq
