#pragma once

#include <utility>

#include <zorn/objects/property_object.h>

#include "modules/daq/bridge/BridgeState.h"
#include "modules/daq/synchronization/SynchronizationModes.h"

namespace Harvane::RT::Modules::Daq {

// The synchronisation option in the host: chosen by the user, and beside it the one in force. Module thread.
class HostSynchronization {
public:
    explicit HostSynchronization(BridgeState& state) : state_(state) {}

    // Beside the option also "ClockState", where a device has a timing: a function that any thread may call as long as
    // the module lives.
    void registerProperties();
    // What has been chosen becomes what the devices follow, and is shown as such.
    void apply();
    // A choice that no device offers goes back as a failure to whoever wrote it. It counts from the next configuration
    // or start on, so it may be made while an acquisition runs.
    void onSynchronizationChanged(Core::GenericPropertyObjectPtr& sender, Core::PropertyValueChangedEventArgsPtr& args);

    // A synchronisation option in the host is a list of the mode in which the device follows and the list of the modes
    // that it sources, in ascending order, all as numbers.
    static Core::ListPtr syncOptionValueToRtCore(const SynchronizationOption& option);
    // Throws InvalidParameterException for what is no such list, ConversionFailedException for a source mode that is
    // no int. Whether a device offers the option isn't looked at.
    static SynchronizationOption syncOptionValueFromRtCore(const Core::ObjectPtr<Core::IBaseObject>& value);

private:
    void showApplied();
    void registerClockState();

    BridgeState& state_;
};

}  // namespace Harvane::RT::Modules::Daq
