#pragma once

#include <functional>
#include <memory>
#include <string>

#include <zorn/structure/channel.h>
#include <zorn/structure/module.h>

#include "modules/daq/amplifier/DaqAmplifiersFactory.h"
#include "modules/daq/bridge/BridgeState.h"

namespace Harvane::RT::Modules::Daq {

class AIChannel;
class AOChannel;
class CANChannel;
class ChannelFolder;
class CntChannel;
class Device;
class HostRates;
class HostSynchronization;
class TopologyElement;

// Builds the host's side of the device tree: folders, channels and properties, once. Module thread.
class HostTree {
public:
    // Reads the amplifier definitions in the folder "amplifiers" of the working directory. Doesn't touch the
    // controller.
    HostTree(BridgeState& state, HostRates& rates, HostSynchronization& synchronization,
             std::function<void()> beforeStart);
    ~HostTree();
    HostTree(const HostTree&) = delete;
    HostTree& operator=(const HostTree&) = delete;

    void buildDataModuleProps(const Core::DataModulePtr& dataModule);
    // Mirrors one element of the device tree into `folder`. When an exception passes, the handlers stay quiet for
    // good: half a tree can't be repaired.
    void buildDeviceTree(const std::shared_ptr<TopologyElement>& element, const Core::ChannelFolderPtr& folder,
                         const Core::AcquisitionSyncPtr& sync);
    void buildDaqDeviceTree(const std::shared_ptr<DaqDevice>& device, const Core::ChannelFolderPtr& folder);
    void buildChannelView(const std::shared_ptr<Device>& device, const std::shared_ptr<ChannelFolder>& channelFolder,
                          const Core::ChannelFolderPtr& hostFolder, const Core::AcquisitionSyncPtr& sync);
    // An amplifier whose definition can't be evaluated is shown as an unknown one, with a line in the log that names
    // file and reason.
    void buildAIChannel(const std::shared_ptr<AIChannel>& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel,
                        const Core::AcquisitionSyncPtr& sync);
    void buildAOChannel(const std::shared_ptr<AOChannel>& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel);
    void buildCntChannel(const std::shared_ptr<CntChannel>& channel,
                         const Core::ChannelPtr<Core::IChannel>& hostChannel);
    void buildCANChannel(const std::shared_ptr<CANChannel>& channel,
                         const Core::ChannelPtr<Core::IChannel>& hostChannel);

private:
    void registerLoopProperties();
    void takeBackOnChange(const Core::ObjectPtr<Core::IEvent>& event);
    void onChannelChanged(Core::GenericPropertyObjectPtr& sender, Core::PropertyValueChangedEventArgsPtr& args);
    Core::ChannelPtr<Core::IChannel> createHostChannel(const Channel& channel) const;
    static void describeChannel(const Channel& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel);
    void registerChannelProperties(const Channel& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel,
                                   size_t place);
    void buildChannel(const std::shared_ptr<Channel>& channel, const Core::ChannelFolderPtr& hostFolder,
                      const Core::AcquisitionSyncPtr& sync);
    std::string usableAmplifierClass(const AIChannel& channel, const Core::NodePtr<>& folder);
    void addRoute(const Core::ChannelPtr<Core::IChannel>& hostChannel, const char* className);

    BridgeState& state_;
    DaqController& controller_;
    HostHooks& hooks_;
    HostRates& rates_;
    HostSynchronization& synchronization_;
    const std::function<void()> beforeStart_;
    DaqAmplifiersFactory amplifierFactory_;
};

}  // namespace Harvane::RT::Modules::Daq
