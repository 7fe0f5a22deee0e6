#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/zornhost/CanFrame.h"
#include "tools/zornhost/HostTree.h"
#include "tools/zornhost/RingReader.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// How logs name the port of a CAN channel: "can0" for "CAN Port 1", by its number.
std::string interfaceOf(const ChannelEntry& entry);
// Whether a channel's samples are CAN frames.
bool isCanChannel(const Harvane::RT::Core::ChannelPtr<>& channel);
bool isCanOutput(const Harvane::RT::Core::ChannelPtr<>& channel);

// A CAN port of the instrument in the host's tree.
struct CanPort {
    int number = 0;  // as in "CAN Port 1"
    ChannelEntry input;
    std::optional<ChannelEntry> output;

    std::string name() const;  // "CAN Port 1"
    std::string interface() const { return interfaceOf(input); }
};

std::vector<CanPort> canPorts(const HostTree& tree);
// By "CAN Port 1", "can0" or "1". Raises std::runtime_error that says which ports there are.
CanPort findPort(const std::vector<CanPort>& ports, const std::string& text);
// All where none is named.
std::vector<CanPort> findPorts(const std::vector<CanPort>& ports, const std::vector<std::string>& texts);
// "CAN Port 1" for a channel of it.
std::string portOf(const ChannelEntry& entry);

// A count of what did not get through, that a channel keeps in each run.
struct CanCount {
    enum class Kind {
        Beginning,  // before the clocks were related: no loss of what a run could have
        Loss,
        Told,  // no frame is missing by it
        Unsent,
    };
    const char* property;
    Kind kind;
    const char* text;  // "when a clock stepped"
    uint64_t value = 0;
};

// The counts of an input or an output channel. Made on the thread of the session; any thread may read.
class CanCounts {
public:
    explicit CanCounts(const Harvane::RT::Core::ChannelPtr<>& channel);
    // Those that are not 0. What can't be asked raises.
    std::vector<CanCount> read() const;

private:
    std::vector<std::pair<CanCount, Harvane::RT::Core::ObjectPtr<Harvane::RT::Core::IFuncObject>>> functions_;
};

// Those that are not 0, at once.
std::vector<CanCount> canCounts(const Harvane::RT::Core::ChannelPtr<>& channel);

// What comes of a port, each frame once.
class CanReader {
public:
    struct Record {
        CanFrame frame;
        int64_t timeNs = 0;  // on the acquisition's clock
    };

    // In a run.
    CanReader(const ChannelEntry& entry, const Harvane::RT::Core::Scheduler& scheduler);
    // Appends what is new; returns how many frames the ring no longer held.
    uint64_t read(std::vector<Record>& records);
    // The rate that its bus is set to, bit/s.
    int bitRate() const { return bitRate_; }

private:
    RingReader reader_;
    int bitRate_ = 0;
    std::vector<CanFrame> frames_;
    std::vector<long> stamps_;
};

}  // namespace zornhost
