#include "tools/zornhost/CanPorts.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr std::string_view portName = "CAN Port ";
constexpr size_t piece = 4096;  // frames that are taken at a time

using Kind = CanCount::Kind;
constexpr std::array<CanCount, 15> counts{{
    {"FramesWithoutTime", Kind::Beginning, "before the clocks were related"},
    {"FramesBeforeStart", Kind::Beginning, "from before the start"},
    {"FramesBeforeZero", Kind::Beginning, "before the instrument's clock began"},
    {"FramesAtClockSteps", Kind::Loss, "when a clock stepped"},
    {"FramesUnused", Kind::Told, "while the input channel was not in use"},
    {"FramesOverflowed", Kind::Loss, "in a cycle that brought too many"},
    {"KernelDrops", Kind::Loss, "for which the kernel had no room"},
    {"FailedReads", Kind::Loss, "by reads that failed"},
    {"LostSamples", Kind::Loss, "that a ring no longer held"},
    {"ErrorFrames", Kind::Told, "error frames"},
    {"NotSentQueueFull", Kind::Unsent, "the queue was full"},
    {"NotSentClosed", Kind::Unsent, "the port is not open"},
    {"NotSentFailed", Kind::Unsent, "the system refused"},
    {"NotSentInvalid", Kind::Unsent, "more than 8 bytes"},
    {"NotSentListenOnly", Kind::Unsent, "the port only listens"},
}};

// At the end of a port's name.
int numberOf(const std::string& port) {
    return std::atoi(port.c_str() + port.find_last_not_of("0123456789") + 1);
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

bool isCanChannel(const ChannelPtr<>& channel) {
    return channel.getType() == 1 && channel.getSampleDataType() == SampleDataType::Opaque &&
           channel.getDimension() == sizeof(CanFrame);
}

bool isCanOutput(const ChannelPtr<>& channel) {
    return isCanChannel(channel) && channel.hasProperty("IsControl") && channel.getPropertyValue<bool>("IsControl");
}

std::string CanPort::name() const {
    return fmt::format("{}{}", portName, number);
}

std::string interfaceOf(const ChannelEntry& entry) {
    return fmt::format("can{}", numberOf(portOf(entry)) - 1);
}

std::string portOf(const ChannelEntry& entry) {
    const std::string name = entry.channel.getName().toStdString();
    return name.substr(0, name.rfind(' '));
}

std::vector<CanPort> canPorts(const HostTree& tree) {
    std::vector<CanPort> ports;
    for (const auto& entry : tree.channels()) {
        if (!isCanChannel(entry.channel)) {
            continue;
        }
        const std::string name = portOf(entry);
        if (!isCanOutput(entry.channel)) {
            ports.push_back({numberOf(name), entry, std::nullopt});
        } else if (!ports.empty() && portOf(ports.back().input) == name) {
            ports.back().output = entry;
        }
    }
    return ports;
}

CanPort findPort(const std::vector<CanPort>& ports, const std::string& text) {
    std::vector<std::string> names;
    for (const auto& port : ports) {
        if (lowered(text) == lowered(port.name()) || text == port.interface() || text == std::to_string(port.number)) {
            return port;
        }
        names.push_back(fmt::format("\"{}\" ({})", port.name(), port.interface()));
    }
    if (names.empty()) {
        throw std::runtime_error("the instrument has no CAN ports");
    }
    throw std::runtime_error(fmt::format("there is no CAN port \"{}\"; there are {}", text, fmt::join(names, ", ")));
}

std::vector<CanPort> findPorts(const std::vector<CanPort>& ports, const std::vector<std::string>& texts) {
    if (texts.empty() && ports.empty()) {
        throw std::runtime_error("the instrument has no CAN ports");
    }
    std::vector<CanPort> found;
    for (const auto& text : texts) {
        found.push_back(findPort(ports, text));
    }
    return texts.empty() ? ports : found;
}

CanCounts::CanCounts(const ChannelPtr<>& channel) {
    for (const CanCount& count : counts) {
        if (channel.hasProperty(count.property)) {
            functions_.emplace_back(count, channel.getPropertyValue<BasePtr>(count.property).asPtr<IFuncObject>());
        }
    }
}

std::vector<CanCount> CanCounts::read() const {
    std::vector<CanCount> found;
    for (const auto& [kind, function] : functions_) {
        CanCount count = kind;
        count.value = static_cast<uint64_t>(std::max<int64_t>(fromValue<int64_t>(executeFunc(function, {})), 0));
        if (count.value > 0) {
            found.push_back(count);
        }
    }
    return found;
}

std::vector<CanCount> canCounts(const ChannelPtr<>& channel) {
    return CanCounts(channel).read();
}

CanReader::CanReader(const ChannelEntry& entry, const Scheduler& scheduler)
    : reader_(entry.channel, scheduler), frames_(piece), stamps_(piece) {
    if (entry.channel.hasProperty("BaudRate")) {
        bitRate_ = entry.channel.getPropertyValue<int>("BaudRate");
    }
}

uint64_t CanReader::read(std::vector<Record>& records) {
    uint64_t lost = 0;
    while (true) {
        const auto result = reader_.read(frames_.data(), stamps_.data(), piece);
        lost += result.lost;
        if (result.samples == 0) {
            return lost;
        }
        for (size_t i = 0; i < result.samples; ++i) {
            records.push_back({frames_[i], stamps_[i]});
        }
    }
}

}  // namespace zornhost
