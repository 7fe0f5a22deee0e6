#pragma once

#include <memory>

#include <zorn/objects/property_object.h>
#include <zorn/structure/node.h>

#include "modules/daq/bridge/BridgeState.h"

namespace Harvane::RT::Modules::Daq {

class AIDevice;
class DaqDevice;

// Rates and base clocks on both sides of the bridge, in Hz. A rate is never rejected: it moves to the nearest one that
// the hardware can do, the change is logged, and whoever wrote it sees what is in force. Every change takes the set-up
// of the coming run back.
//
// The handlers do nothing while the bridge itself writes or an acquisition runs, and let no std::exception out: it is
// logged and the property keeps what was written. Module thread.
class HostRates {
public:
    explicit HostRates(BridgeState& state);

    void onSampleRateChanged(Core::GenericPropertyObjectPtr& sender, Core::PropertyValueChangedEventArgsPtr& args);
    void onDaqDeviceSampleRateChanged(Core::GenericPropertyObjectPtr& sender,
                                      Core::PropertyValueChangedEventArgsPtr& args);
    // For any property of a channel; acts on "SampleRate".
    void onChannelSampleRateChanged(Core::GenericPropertyObjectPtr& sender,
                                    Core::PropertyValueChangedEventArgsPtr& args);
    void onDaqDeviceBaseClockChanged(Core::GenericPropertyObjectPtr& sender,
                                     Core::PropertyValueChangedEventArgsPtr& args);

    // True when the clock has changed. Rewrites the maximum rates in the host, also when the change has failed: what
    // the instrument then runs with counts.
    bool setDaqDeviceBaseClock(const std::shared_ptr<AIDevice>& aiDevice, int clock);

    // The controller's own rate, checked, down the tree and into the host: the first rate of a new tree.
    void applyInitialRate();
    // Rates and clocks that somebody has written while an acquisition ran stay as written until it has ended: now they
    // move to what can be had, and count for the next run. Failures are logged.
    void takeWrittenInRun() noexcept;
    // The exact rate of a synchronous channel, beside the shown one.
    static void writeExactRate(const Channel& channel, const Core::ChannelPtr<Core::IChannel>& hostChannel);

private:
    template <class Body>
    void runHandler(const char* name, Body&& body);
    template <class I>
    static int adjust(const char* what, int requested, int possible, const Core::PropertyObjectPtr<I>& owner,
                      const char* property);
    bool tryBaseClock(const char* handler, const std::shared_ptr<AIDevice>& aiDevice, int clock);
    // Moves the device to the clock that the rate needs, if it has a selectable clock. True when the rates are to be
    // looked at again.
    bool setDaqDeviceBaseClockFromSampleRate(const char* handler, const std::shared_ptr<DaqDevice>& device,
                                             const Core::ChannelFolderPtr& folder, int rate);
    bool isUpdatingFromConfiguration() const;
    void applySystemRate(int rate);
    int possibleDeviceRate(const DaqDevice& device, int requested) const;
    void recheckRates();
    void writeMaxRates();
    void writeDeviceRates();
    void writeChannelRates();

    BridgeState& state_;
    DaqController& controller_;
};

// Position of the clock in force in the list of selectable ones; -1 when it isn't there.
int baseClockIndex(const AIDevice& device);

}  // namespace Harvane::RT::Modules::Daq
