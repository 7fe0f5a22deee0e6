#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <zorn/structure/module.h>

// The host's tree as a person names it: display names joined by "/", below the data module's root folder.
namespace zornhost {

// One channel and its place.
struct ChannelEntry {
    Harvane::RT::Core::ChannelPtr<> channel;
    std::string path;   // "KESTRIX/Analog inputs/AI 1/Raw input"
    std::string label;  // the shortest end of the path that no other channel has: "AI 1/Raw input"
};

// Whether there is hardware behind a channel: an analog input without an amplifier has none.
bool hasHardware(const Harvane::RT::Core::ChannelPtr<>& channel);

// A node that a path leads to: the data module itself for "", a folder or a channel.
struct NodeEntry {
    Harvane::RT::Core::GenericPropertyObjectPtr node;
    std::string path;
};

struct PropertyEntry {
    NodeEntry owner;
    std::string name;
};

// Something that a user named and that isn't there; the text says what is.
class UnknownName : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class HostTree {
public:
    explicit HostTree(Harvane::RT::Core::DataModulePtr dataModule) : dataModule_(std::move(dataModule)) {}

    std::vector<ChannelEntry> channels() const;
    // Channels whose path, or an end of it that begins at a "/", matches one of the patterns (fnmatch; no pattern:
    // all). A pattern that fits no channel raises UnknownName with the labels that there are.
    std::vector<ChannelEntry> channels(const std::vector<std::string>& patterns) const;
    // Raises UnknownName.
    NodeEntry node(std::string_view path) const;
    // The last element of the path is the property.
    PropertyEntry property(std::string_view path) const;
    // The first folder that carries a device's identity; empty when there is none.
    Harvane::RT::Core::GenericPropertyObjectPtr deviceFolder() const;

    const Harvane::RT::Core::DataModulePtr& dataModule() const { return dataModule_; }

private:
    Harvane::RT::Core::DataModulePtr dataModule_;
};

// A value as a person reads it: "1000" for a ratio n/1, "[1, [2, 3]]" for lists, "(function)" for what can't be read.
std::string valueText(const Harvane::RT::Core::BasePtr& value);

}  // namespace zornhost
