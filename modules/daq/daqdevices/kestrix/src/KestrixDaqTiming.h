#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "libraries/protocols/ptp/PTPApi.h"
#include "libraries/utils/TimerThread.h"
#include "modules/daq/daqdevices/kestrix/src/PlatformPtpControl.h"
#include "modules/daq/daqdevices/kestrix/src/TimingDevice.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/synchronization/Synchronization.h"
#include "modules/daq/synchronization/TimeSyncController.h"
#include "shared/libraries/kestrix/src/registers/IrigCoreRegister.h"
#include "shared/libraries/kestrix/src/registers/TimingCoreRegister.h"
#include "shared/libraries/kestrix/src/registers/VcxoDriverRegister.h"

namespace Harvane::RT::Modules::Daq {

// What drives the instrument's synchronisation: timing core, IRIG core, oscillator driver, the platform's PTP control
// and the connection to the PTP daemon. Two threads of its own run as long as it lives: one steers the oscillator with
// each record of the timing driver, the other asks the PTP daemon how its port stands, once a second.
//
// Absolute time is the operating system's clock, which is read and never set. applySynchronization,
// initializeAcquisition and the transfer operations come from the thread that drives the acquisition states; everything
// else from any thread. Register failures pass through; what fails of the PTP daemon and its script is logged at level
// 4 and goes on.
class KestrixDaqTiming : public DaqTiming {
public:
    // Never fails for a missing timing device or daemon.
    KestrixDaqTiming(std::shared_ptr<Shared::Kestrix::IRegisterAccess> memoryAccess,
                     std::shared_ptr<Shared::Kestrix::IRegisterAccess> i2cAccess);
    // Ends both threads; bounded by a question to the daemon, 1 s at most.
    ~KestrixDaqTiming() override;

    // Applies the device's option to the hardware unless it is the one applied last.
    void applySynchronization() override;
    // Whatever the option, it will be applied anew.
    void clearPreviousSynchronization();
    // Takes up to 2.5 s: a new internal second waits for the reference's pulse, and the reference is given a second.
    void initializeAcquisition(bool recursive) override;
    void startTransfer();
    void stopTransfer();
    void abortAcquisition() noexcept override;

    std::int64_t getStartTime() override;
    std::int64_t getCurrentTime(bool& tracking, bool& error) override;
    ClockState getClockState() override;

    std::int64_t getSignedPhaseError() const { return signedPhaseError_; }  // counts of 150 MHz
    std::int64_t getFrequencyError() const { return frequencyError_; }      // counts a second off 150 MHz
    std::uint16_t getVcxoValue() const { return vcxoValue_; }               // control word, 0 to 1023
    double getEquilibrium() const { return controller_.getEquilibriumPwm(); }
    std::string getDeviceClockUuid() const;
    std::string getGrandmasterClockUuid() const;

private:
    // Both clocks of the operating system at one instant, ns.
    struct ClockReadings {
        std::int64_t system = 0;
        std::int64_t steady = 0;
    };

    void resetHardware();
    void apply(const Synchronization& wanted);
    void setPtpState(PlatformPtpControl::STATE state, const char* shown);
    void setPtpSettings(PlatformPtpControl::STATE state);
    void setTimingCoreIrigMaster();
    void setPpsInput();
    void setIrigInput();
    void setIrigCore(std::uint8_t pulse);
    void setInput(std::uint8_t reference, bool outputMode, bool debounced);
    void awaitNewSecond();

    void fixPhaseError();
    void publishPulse(bool steered, int controlWord);
    bool mayControl(const TimingDevice::Record& record) const;
    void detectStep();
    static ClockReadings readClocks();
    void printIrigTime();
    void setVcxoValue(std::uint16_t value);
    std::uint16_t readVcxoValue();
    void readPtpState();
    void showPtpPort(std::string text);

    std::atomic<std::int64_t> signedPhaseError_{0};
    std::atomic<std::int64_t> frequencyError_{0};
    std::atomic<std::uint16_t> vcxoValue_{0};
    std::atomic<bool> ptpPortLocked_{false};
    std::atomic<bool> tracking_{false};
    std::atomic<bool> syncError_{false};
    std::atomic<bool> disciplineEnabled_{false};
    std::atomic<std::int32_t> currentMode_{0};
    ClockReadings lastReadings_;  // at the last record; both 0 before the first, which so counts as a step
    Synchronization previousSynchronization_;
    bool transferStarted_ = false;  // the start trigger is armed

    std::mutex pulseMutex_;  // held for a copy
    ClockState pulse_;       // what belongs to the last record

    std::mutex startTimeMutex_;
    std::int64_t startTime_ = -1;
    std::mutex ptpMutex_;               // held while the daemon is asked
    mutable std::mutex identityMutex_;  // for a copy of what it has answered
    std::string ptpPort_;
    std::string deviceClockUuid_;
    std::string grandmasterClockUuid_;

    TimeSyncControllerMaxErrors maxErrors_;
    TimeSyncController controller_;
    PlatformPtpControl ptpControl_;
    TimingDevice timingDevice_;
    const std::shared_ptr<Shared::Kestrix::IRegisterAccess> memoryAccess_;
    const std::shared_ptr<Shared::Kestrix::IRegisterAccess> i2cAccess_;
    Shared::Kestrix::IrigCoreRegister irigCore_;
    Shared::Kestrix::TimingCoreRegister timingCore_;
    Shared::Kestrix::VcxoDriverRegister vcxoDriver_;
    std::unique_ptr<PTPApi> ptpApi_;

    // Last, so that what they use is there as long as they run.
    Utils::Threading::TimerThread phaseTimer_;
    Utils::Threading::TimerThread ptpTimer_;
};

}  // namespace Harvane::RT::Modules::Daq
