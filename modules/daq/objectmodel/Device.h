#pragma once

#include <atomic>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/ConnectionPoint.h"
#include "modules/daq/objectmodel/DaqVector.h"
#include "modules/daq/objectmodel/DeviceChannels.h"
#include "modules/daq/objectmodel/OperationMode.h"
#include "modules/daq/objectmodel/ProtocolStack.h"
#include "modules/daq/objectmodel/TopologyElement.h"

namespace Harvane::RT::Modules::Daq {

class Channel;
class ChannelFolder;

// A node with channels that takes part in the acquisition's walk down the tree. Each step of an acquisition is one
// virtual operation; the base runs it on its own channels and on the child devices, a subclass calls its base and adds
// its own. Walks catch nothing: an exception of a child leaves out the children behind it, but for acquireData, which
// goes to all of them and then throws the first one's. No lock: all walks run on one thread at a time. Rates are in Hz.
// Devices don't refer to the controller, which they may outlive.
class Device : public TopologyElement {
public:
    static constexpr int noMaxRate = std::numeric_limits<int>::max();

    Device() = default;
    ~Device() override;
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // The model, or the class name without one.
    std::string getDisplayName() const override;
    // Sets up the subtree: inherits rate limits from the parent, becomes the children's parent and initializes them.
    virtual void initialize();
    // Texts of faults: the first non-empty list of the children.
    virtual std::vector<std::string> checkHardware();
    virtual void initializeHardware();
    virtual void applySynchronization();
    // Makes channelView with all channels; a subclass with a more telling view overrides it.
    virtual void buildChannelView();
    virtual void prepareAcquisition(bool recursive);
    virtual void initializeAcquisition(bool recursive);
    virtual void startAcquisition(bool recursive);
    virtual void stopAcquisition(bool recursive);
    virtual void finalizeAcquisition(bool recursive);
    // Undoes what this device and its children have started, whatever state a failure has left them in. Harmless when
    // nothing runs. A subclass ends its own, carries on past failures and logs them, and calls its base.
    virtual void abortAcquisition() noexcept;
    virtual void acquireData();
    virtual void sendData();
    // The nearest rate that the device and its children can run at. A subclass that overrides this form needs
    // `using Device::checkRate`.
    virtual int checkRate(int rate) const;
    // The nearest rate of one channel while the device runs at deviceRate. channelNumber is the channel's place in the
    // device; std::out_of_range beyond the list.
    virtual int checkChannelRate(int channelNumber, int deviceRate, int requested) const;
    virtual void setUsedChannels(bool recursive);

    unsigned long getDeviceId() const;
    bool hasDeviceRate() const;
    int getRate() const;
    // The rate that a device which divides baseRate can run at for this request: at most the request, a whole fraction
    // of baseRate and one that the device accepts. -1 when no divider does. A base below what the device can do gives
    // the device's own rate.
    int checkRate(int baseRate, int requested) const;
    // Divider of this device, its channels and, by rate, its children. A divider below 1 is ignored.
    void setSRDiv(int divider);
    // Sets the divider for this rate. A rate below 1 is ignored.
    void setRate(int newRate);
    // Full rate of the subtree; throws DaqException("Sample rate out of bounds.") below the minimum.
    void setSampleRate(int newRate);
    void setMaxChannelsCount(int count);
    bool channelExists(const std::shared_ptr<Channel>& channel) const;
    void setOperationMode(OperationMode mode);
    void setAcqRunning(bool running);
    void setAcqStopping(bool stopping);
    // Own channels first, then those of the children, depth first.
    Channels getAllChannels() const;
    // This device first, then the subtrees of the children.
    DaqVector<std::shared_ptr<Device>> getAllDevices();

    std::string serialNumber;
    int revisionCounter = 0;
    std::string manufacturer;
    std::string model;
    std::string deviceManual;
    std::string deviceRevision;
    std::string softwareRevision;
    std::string hardwareRevision;
    unsigned char deviceHealth = 0;
    std::shared_ptr<ConnectionPoint> connectionPoint;  // Null for a device that discovery didn't make.
    int rate = 1000;                                   // Full rate.
    int minRate = 0;                                   // 0: no limit of its own.
    int maxRate = noMaxRate;                           // noMaxRate: no limit of its own.
    int srDiv = 1;
    OperationMode operationMode = 0;
    DeviceChannels channels;
    std::shared_ptr<ChannelFolder> channelView;
    // Set by the controller from the root down. Any thread may read them.
    std::atomic<bool> acqRunning{false};
    std::atomic<bool> acqStopping{false};
    ProtocolStack protocolStack;

    Device* asDevice() final { return this; }

protected:
    // Calls `call` with each child that is a device, in list order. Allocates nothing: every cycle walks.
    template <class Call>
    void forEachChild(Call&& call) const {
        for (const auto& element : *this) {
            if (Device* const child = element ? element->asDevice() : nullptr) {
                call(*child);
            }
        }
    }
};

}  // namespace Harvane::RT::Modules::Daq
