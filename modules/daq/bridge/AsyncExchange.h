#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <zorn/structure/channel.h>

#include "modules/daq/bridge/BridgeState.h"
#include "modules/daq/objectmodel/LossCount.h"

namespace Harvane::RT::Modules::Daq {

// Asynchronous samples on their way between device channels and host channels, one call a direction and cycle. What the
// host's count lacks of the device's, or the other way round, is passed on; a pass that was broken off is made up for
// in the next cycle, as far as the ring still holds the samples. What it doesn't hold is counted for the channel, told
// in the log when a loss begins and when it has ended, and answered by the host channel's "LostSamples".
class AsyncExchange {
public:
    // Ticks per second of the host's time stamps.
    explicit AsyncExchange(int64_t clockBase) : clockBase_(clockBase) {}

    // Gives the asynchronous channels of the host a function for each of their counts of losses: "LostSamples", and
    // what the device counts besides. Once, when the tree stands.
    void registerLosses(const ChannelsMap& channels, HostHooks& hooks);
    // Before a run: everything that the cycle needs, so that it asks for no interface and allocates nothing.
    void prepare(const ChannelsMap& channels);

    // Cycle thread. Failures of the host and of a channel pass; the channels behind it wait for the next cycle.
    void receive();  // device to host
    void send();     // host to device

private:
    using Count = std::shared_ptr<LossCount>;
    struct Entry {
        std::shared_ptr<Channel> channel;
        Core::AsyncChannelPtr host;
        Core::ChannelBufferPtr<Core::IChannelBuffer> hostBuffer;
        Count lost;
    };

    static int64_t limit(Entry& entry, int64_t missing, int64_t available);
    void receive(Entry& entry) const;
    void send(Entry& entry) const;

    const int64_t clockBase_;
    std::vector<Count> losses_;  // by place in the channels map; null for a channel without
    std::vector<Entry> inputs_;
    std::vector<Entry> outputs_;
};

// Truncated; times that no clock value can hold become the nearest one that can.
int64_t toTicks(double value);

}  // namespace Harvane::RT::Modules::Daq
