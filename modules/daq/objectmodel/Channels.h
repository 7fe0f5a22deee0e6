#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "modules/daq/objectmodel/SampleType.h"

namespace Harvane::RT::Modules::Daq {

class Channel;

// A list of channels. All queries keep its order.
class Channels : public std::vector<std::shared_ptr<Channel>> {
public:
    using std::vector<std::shared_ptr<Channel>>::vector;
    Channels() = default;
    Channels(const Channels&) = default;
    Channels& operator=(const Channels&) = default;
    virtual ~Channels() = default;

    Channels getActiveChannels() const;
    // Null without an active one.
    std::shared_ptr<Channel> getFirstActiveChannel() const;
    Channels getChannelsBySampleType(SampleType sampleType) const;
    Channels getOutChannels() const;
    Channels getInChannels() const;

    // Over the active synchronous channels, in samples of the device's full rate, so that channels of different
    // dividers compare; 0 without any. No allocation: used in every cycle.
    std::uint64_t getMinSamplesAcquired() const;
    std::uint64_t getMaxSamplesAcquired() const;
    struct SamplesAcquired {
        std::uint64_t least = 0;
        std::uint64_t most = 0;
        std::uint64_t sum = 0;  // Grows exactly when one of the channels gains samples.
    };
    // All of it in one pass.
    SamplesAcquired getSamplesAcquired() const;
};

}  // namespace Harvane::RT::Modules::Daq
