#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <zorn/objects/property_object.h>
#include <zorn/structure/channel.h>
#include <zorn/structure/module.h>
#include <zorn/structure/node.h>

#include "modules/daq/amplifier/DaqAmplifiersFactory.h"
#include "modules/daq/hostobjects/LifeToken.h"
#include "modules/daq/synchronization/SynchronizationModes.h"

namespace Harvane::RT::Modules::Daq {

class AIChannel;
class AIDevice;
class AOChannel;
class CANChannel;
class Channel;
class ChannelFolder;
class CntChannel;
class DaqAmplifier;
class DaqController;
class DaqDevice;
class Device;
class IChannelBuffer;
class TopologyElement;

// The bridge between the device tree and the host's data model: mirrors devices and channels into folders, channels
// and properties, keeps the rates of both sides in step, and copies what the user has set before each start.
//
// Everything runs on the host's configuration thread; only getChannelsMap is also read by the cycle, which never
// overlaps. Rates and clocks are in Hz; the host shows rates as ratios over 1. A rate is never rejected: it moves to
// the nearest one that the hardware can do, and the change is logged.
//
// Functions and handlers that stay in the host's tree after this object is gone answer InvalidState (0x80000029).
class DaqStructure {
public:
    using DevicesMap = std::vector<std::pair<std::shared_ptr<DaqDevice>, Core::ChannelFolderPtr>>;
    using ChannelsMap = std::vector<std::pair<std::shared_ptr<Channel>, Core::ChannelPtr<Core::IChannel>>>;

    // Keeps a reference to the controller and doesn't use it before the first call. Reads the amplifier definitions
    // in the folder "amplifiers" of the working directory.
    explicit DaqStructure(DaqController& controller);
    // Doesn't touch the controller, which may be gone already.
    virtual ~DaqStructure();
    DaqStructure(const DaqStructure&) = delete;
    DaqStructure& operator=(const DaqStructure&) = delete;

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

    // Settings that the host needs before it reserves memory.
    void initialize();
    // Nothing without a loop device.
    void initializeLoop(const Core::DataPtr& data, const Core::DataModulePtr& dataModule);
    // Takes over what the user has set and prepares the acquisition. The host has reserved its channels' memory
    // before. Throws InvalidStateException while an acquisition runs, and for a used channel whose write position
    // isn't 0: the hardware's blocks only fit a ring from its beginning.
    void beforeStart();
    void updateScaleFactors();

    // In tree walk order; filled once.
    ChannelsMap& getChannelsMap() { return channelsMap_; }
    DevicesMap& getDevicesMap() { return devicesMap_; }

    // True when the clock has changed. Rewrites the maximum rates in the host.
    bool setDaqDeviceBaseClock(const std::shared_ptr<AIDevice>& aiDevice, int clock);
    // Moves the device to the clock that the rate needs, if it has a selectable clock. True when the clock has
    // changed.
    bool setDaqDeviceBaseClockFromSampleRate(const std::shared_ptr<DaqDevice>& device,
                                             const Core::ChannelFolderPtr& folder, int rate);

    // A synchronisation option in the host is a list of the mode in which the device follows and the list of the modes
    // that it sources, in ascending order, all as numbers.
    static Core::ListPtr syncOptionValueToRtCore(const std::pair<SynchronizationMode, SynchronizationModes>& option);
    // Throws InvalidParameterException for what is no such list, ConversionFailedException for a source mode that is
    // no int. Whether a device offers the option isn't looked at.
    static std::pair<SynchronizationMode, SynchronizationModes> syncOptionValueFromRtCore(
        const Core::ObjectPtr<Core::IBaseObject>& value);

    // Handlers of property changes. They do nothing while the bridge itself writes or an acquisition runs, and let no
    // std::exception out: it is logged and the property keeps what was written.
    void onSampleRateChanged(Core::GenericPropertyObjectPtr& sender, Core::PropertyValueChangedEventArgsPtr& args);
    void onDaqDeviceSampleRateChanged(Core::GenericPropertyObjectPtr& sender,
                                      Core::PropertyValueChangedEventArgsPtr& args);
    // For any property of a channel; acts on "SampleRate".
    void onChannelSampleRateChanged(Core::GenericPropertyObjectPtr& sender,
                                    Core::PropertyValueChangedEventArgsPtr& args);
    void onDaqDeviceBaseClockChanged(Core::GenericPropertyObjectPtr& sender,
                                     Core::PropertyValueChangedEventArgsPtr& args);

private:
    using Handler = void (DaqStructure::*)(Core::GenericPropertyObjectPtr&, Core::PropertyValueChangedEventArgsPtr&);
    class UpdatingScope;

    template <class Body>
    auto whileAlive(Body body) const;
    void subscribe(const Core::ObjectPtr<Core::IEvent>& event, Handler handler);
    template <class Body>
    void runHandler(const char* name, Body&& body);

    void registerLoopProperties();
    void registerSynchronization();
    void onSynchronizationChanged(Core::GenericPropertyObjectPtr& sender, Core::PropertyValueChangedEventArgsPtr& args);
    Core::ChannelPtr<Core::IChannel> createHostChannel(const Channel& channel) const;
    static void describeChannel(const Channel& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel);
    void registerChannelProperties(const Channel& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel,
                                   size_t place);
    void buildChannel(const std::shared_ptr<Channel>& channel, const Core::ChannelFolderPtr& hostFolder,
                      const Core::AcquisitionSyncPtr& sync);
    std::string usableAmplifierClass(const AIChannel& channel, const Core::NodePtr<>& folder);

    static void readBack(const std::shared_ptr<Channel>& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel);

    bool isUpdatingFromConfiguration() const;
    int checkedSystemRate(int value, const Core::GenericPropertyObjectPtr& owner);
    void applySystemRate(int rate);
    void recheckRates();
    int checkedDeviceRate(const DaqDevice& device, int value) const;
    void writeDeviceRates();
    void writeChannelRates();

    int updating_ = 0;  // depth; handlers run at 0 only
    DaqController& controller_;
    Core::DataModulePtr dataModule_;
    DevicesMap devicesMap_;
    ChannelsMap channelsMap_;
    std::vector<std::shared_ptr<DaqAmplifier>> amplifiers_;  // one for each amplifier of the tree
    DaqAmplifiersFactory amplifierFactory_;
    // The module's own buffer of each synchronous channel, for when the host doesn't use the channel.
    std::map<std::shared_ptr<Channel>, std::shared_ptr<IChannelBuffer>> channelBuffers_;
    std::vector<std::pair<Core::ObjectPtr<Core::IEvent>, Core::ObjectPtr<Core::IEventHandler>>> subscriptions_;
    LifeToken life_;
};

}  // namespace Harvane::RT::Modules::Daq
