#pragma once

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <zorn/structure/channel.h>
#include <zorn/structure/module.h>
#include <zorn/structure/node.h>

#include "modules/daq/hostobjects/HostHooks.h"

namespace Harvane::RT::Modules::Daq {

class Channel;
class DaqAmplifier;
class DaqController;
class DaqDevice;
class IChannelBuffer;

// In tree walk order.
using DevicesMap = std::vector<std::pair<std::shared_ptr<DaqDevice>, Core::ChannelFolderPtr>>;
using ChannelsMap = std::vector<std::pair<std::shared_ptr<Channel>, Core::ChannelPtr<Core::IChannel>>>;

// What the rooms of the bridge share: who mirrors whom, and whether it is the bridge itself that writes at the moment.
struct BridgeState {
    explicit BridgeState(DaqController& controller) : controller(controller) {}

    DaqController& controller;
    Core::DataModulePtr dataModule;
    DevicesMap devices;
    ChannelsMap channels;
    std::vector<std::shared_ptr<DaqAmplifier>> amplifiers;  // one for each amplifier of the tree
    // The module's own buffer of each synchronous channel, for when the host doesn't use the channel.
    std::map<std::shared_ptr<Channel>, std::shared_ptr<IChannelBuffer>> channelBuffers;
    int updating = 0;  // depth; what changes meanwhile is the bridge's own doing
    HostHooks hooks;
};

// Keeps the handlers from answering the bridge's own writes. Scopes nest.
class UpdatingScope {
public:
    explicit UpdatingScope(BridgeState& state) : depth_(state.updating) { ++depth_; }
    ~UpdatingScope() { --depth_; }
    UpdatingScope(const UpdatingScope&) = delete;
    UpdatingScope& operator=(const UpdatingScope&) = delete;

private:
    int& depth_;
};

}  // namespace Harvane::RT::Modules::Daq
