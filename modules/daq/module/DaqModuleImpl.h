#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/bridge/RtcClasses.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/module/GenericModuleImpl.h"

namespace Harvane::RT::Modules::Daq {

// The module object that the host holds: maps the host's lifecycle to the acquisition controller and the bridge, runs
// the exchange of samples once a cycle, and is the host's clock, absolute time and, with a loop device, source of
// cycles. It has no thread. Lifecycle calls and processData come one after the other; the clock and time queries may
// come from any thread at any time between `configure` and the next one.
class DaqModuleImpl : public GenericModuleImpl<Core::IPropertyObject, Core::IClockProvider, Core::IAbsTimeProvider,
                                               Core::ILoopProvider> {
public:
    // Touches no hardware.
    DaqModuleImpl();
    ~DaqModuleImpl() override;

    Core::ErrCode getUnit(Core::IString** unit) override;
    Core::ErrCode getClockBase(Core::IRatio** base) override;
    Core::ErrCode getResolution(Core::IRatio** resolution) override;
    Core::ErrCode getCurrentClock(long* ticks) override;
    Core::ErrCode getAcquiredClock(long* ticks) override;

    // Without a timing device the times are -1 (unknown).
    Core::ErrCode getStartAbsTime(long* microseconds) override;
    Core::ErrCode getCurrentAbsTime(long* microseconds) override;
    Core::ErrCode getTracking(Core::TrackingEnum* trackingState) override;
    Core::ErrCode getTimingError(Core::TimingErrorEnum* error) override;
    Core::ErrCode getIsAbsTimeSynchronized(unsigned char* synchronized) override;

    Core::ErrCode initializeLoop() override;
    Core::ErrCode startLoop(Core::IProcObject* cycle, Core::IBaseObject* context) override;
    Core::ErrCode stopLoop() override;
    Core::ErrCode getInterval(long* milliseconds) const override;

protected:
    // Once only, also when it failed: what it has built stays.
    void onAdd(const Core::ModuleAddParamsPtr& params) override;
    void onConfigure(const Core::ModuleConfigPtr& config) override;
    void onInitialize() override;
    void onStart() override;
    void onStop() override;
    void onProcessData() override;

    // The controller dies first and leaves the device tree to the bridge's maps: devices don't refer to it.
    DaqStructure daqStructure;
    DaqController daqController;
    Core::ObjectPtr<Core::IProcObject> loopProc;  // given to startLoop
    std::atomic<bool> tracking{true};             // as last read from the timing device
    std::atomic<bool> timingError{false};
    int64_t clockBase = 1000000000;  // ticks per second of all clock values

private:
    // For the bridge, which takes the address of the controller before that is built.
    DaqController& controller() { return daqController; }
    void requireAdded() const;
    void forceRefreshTrackingAndErrorStatus();
    void moveAsyncSamplesIn();
    void moveAsyncSamplesOut();

    bool addStarted_ = false;
    std::unique_ptr<RtcClasses> rtcClasses_;  // from add on: the tree has objects of these classes
    // Samples of each entry of the channels map that its ring had lost before they could be passed on, in this run.
    std::vector<int64_t> lostSamples_;
    // Places of the asynchronous channels in the channels map, so that a cycle looks at no others.
    std::vector<size_t> asyncChannels_;
};

}  // namespace Harvane::RT::Modules::Daq
