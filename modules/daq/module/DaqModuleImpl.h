#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "libraries/utils/FaultReport.h"
#include "modules/daq/bridge/AsyncExchange.h"
#include "modules/daq/bridge/DaqRTOperation.h"
#include "modules/daq/bridge/DaqStructure.h"
#include "modules/daq/controller/DaqController.h"
#include "modules/daq/module/GenericModuleImpl.h"

namespace Harvane::RT::Modules::Daq {

// The module object that the host holds: maps the host's lifecycle to the acquisition controller and the bridge, runs
// the exchange of samples once a cycle, and is the host's clock, absolute time and, with a loop device, source of
// cycles. It has no thread. Lifecycle calls and processData come one after the other; the clock and time queries may
// come from any thread at any time.
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
    // A failure leaves the module empty. It may be tried again as long as nothing stands in the host's tree.
    void onAdd(const Core::ModuleAddParamsPtr& params) override;
    void onConfigure(const Core::ModuleConfigPtr& config) override;
    void onInitialize() override;
    void onStart() override;
    void onStop() override;
    void onProcessData() override;

    // The controller dies first and leaves the device tree to the bridge's maps: devices don't refer to it.
    DaqStructure daqStructure;
    DaqController daqController;
    std::unique_ptr<DaqRTOperation> daqRTOperation;  // from add on: the tree has objects of its classes
    Core::ObjectPtr<Core::IProcObject> loopProc;     // given to startLoop
    std::atomic<bool> tracking{true};                // as last read from the timing device
    std::atomic<bool> timingError{false};
    int64_t clockBase = 1000000000;  // ticks per second of all clock values

private:
    // One step of the cycle, and what the log says in front of a failure's own text and of the end of it.
    struct Stage {
        const char* name;
        const char* failure;
        void (DaqModuleImpl::*run)();
        const char* end = "";
    };
    static constexpr size_t stageCount = 5;
    static const Stage stages[stageCount];

    // For the bridge, which takes the address of the controller before that is built.
    DaqController& controller() { return daqController; }
    void prepare();
    void setUpRun();
    int exchangeRate() const;
    void prepareRoutes();
    void forceRefreshTrackingAndErrorStatus();
    int64_t readAbsTime(DaqTiming& timing);
    void runStage(size_t stage);
    void tellStage(size_t stage, const std::string& failure);
    void acquireData();
    void receiveAsyncSamples();
    void processRoutes();
    void sendAsyncSamples();
    void sendData();

    AsyncExchange asyncExchange_{clockBase};
    // Of this run; cycle thread.
    std::optional<Utils::FaultReport> timingFaults_;
    std::array<std::optional<Utils::FaultReport>, stageCount> stageFaults_;
};

}  // namespace Harvane::RT::Modules::Daq
