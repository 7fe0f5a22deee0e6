#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "modules/daq/controller/AcquisitionPhase.h"
#include "modules/daq/objectmodel/Channels.h"
#include "modules/daq/objectmodel/DaqFactory.h"
#include "modules/daq/objectmodel/DeviceError.h"
#include "modules/daq/objectmodel/Interfaces.h"
#include "modules/daq/objectmodel/OperationMode.h"
#include "modules/daq/objectmodel/SampleCounter.h"
#include "modules/daq/synchronization/SynchronizationModes.h"

namespace Harvane::RT::Modules::Daq {

class Channel;
class DaqClock;
class DaqDevice;
class DaqLoop;
class DaqTiming;
class Device;
class SystemDevice;

// Drives the whole acquisition: owns interfaces and device tree and turns each step into one walk down the tree.
//
// The way to a run is a transaction. It goes through the phases of AcquisitionPhase: initialize, scan,
// initializeHardware, then, as often as wanted, applySynchronization, prepareAcquisition, initializeAcquisition,
// startAcquisition, acquireData and sendData once a cycle, stopAcquisition. A step that isn't possible in the phase
// throws WrongPhaseException and changes nothing. A step that fails leaves nothing switched on: the devices are walked
// by abortAcquisition, the phase is Prepared again (Scanned, when the preparation failed), and the first failure goes
// to the caller.
//
// The steps come from the module's and the scheduler's thread and don't overlap. phase(), acqRunning(), acqStopping(),
// acqInitialized(), timeSources(), getCurrentTime(), sampleRate and maxSamplesAcquired may be asked for by any thread
// at any time. Rates are in Hz.
class DaqController {
public:
    DaqController();
    ~DaqController();
    DaqController(const DaqController&) = delete;
    DaqController& operator=(const DaqController&) = delete;

    void initialize();
    // A second scan replaces the tree. Empty until initializeHardware.
    void scan();
    // Throws std::runtime_error("No valid sync option") when the devices go together in no way.
    void initializeHardware();
    // What the devices are to follow, with the clocks that result, becomes what they follow.
    void applySynchronization();
    void prepareAcquisition();
    void initializeAcquisition();
    void startAcquisition();
    // Goes all the way down whatever fails on it and then throws the first failure. Nothing where nothing is on.
    void stopAcquisition();
    // Lets the tree go: the phase is Empty.
    void reset() noexcept;
    // Switches off whatever a start that failed, or a run that was not stopped, has left on.
    void abortAcquisition() noexcept;
    // Something that the coming run was set up with has changed: Initialised goes back to Prepared.
    void invalidate();

    AcquisitionPhase phase() const { return phase_.load(std::memory_order_acquire); }
    bool acqRunning() const { return phase() == AcquisitionPhase::Running || acqStopping(); }
    bool acqStopping() const { return phase() == AcquisitionPhase::Stopping; }
    bool acqInitialized() const { return phase() == AcquisitionPhase::Initialised; }
    // Throws WrongPhaseException with the refusal in words.
    void require(AcquisitionStep step) const;
    // Throws the first failure of a device, after all have been asked and their samples been counted, and
    // DataLostException when the fastest and the slowest channel have drifted apart by more than three quarters of a
    // channel's ring.
    void acquireData();
    void sendData();

    // Clock and timing that are in force, always a pair that belongs together.
    struct TimeSources {
        std::shared_ptr<DaqClock> clock;
        std::shared_ptr<DaqTiming> timing;
    };
    TimeSources timeSources() const;
    // Seconds of the master clock, -1.0 while there is no time.
    double getCurrentTime() const;

    // Only devices with a device rate count.
    int getMinSampleRate() const;  // 1 without any.
    int getMaxSampleRate() const;  // 10 without any.
    // The first of those with the largest maximum; null without any.
    std::shared_ptr<DaqDevice> findDeviceWithMaxSR() const;
    bool isSRValidForAllDevices(int rate) const;
    // No check: callers go through checkSampleRate.
    void setSampleRate(int rate);
    // The nearest rate at or below the request that all devices can run at or derive their own from. Where devices
    // share no such rate the answer is the nearest one of the fastest device.
    int checkSampleRate(int rate) const;

    // The device, of any class, that has this channel; null without one.
    std::shared_ptr<Device> findDeviceByChannel(const std::shared_ptr<Channel>& channel) const;

    SynchronizationOptions getSynchronizationOptions() const;
    SynchronizationOptions getSynchronizationOptions(const std::shared_ptr<DaqDevice>& device) const;
    // Chooses an option for every device. Throws std::runtime_error("not valid synchronization").
    void setSynchronization(const SynchronizationOption& wanted);
    bool checkSynchronization(const std::shared_ptr<DaqDevice>& device, const SynchronizationOption& offered,
                              const SynchronizationOption& wanted) const;
    // (None, {}) when the device offers nothing that goes with the option.
    SynchronizationOption getFirstValidSyncMode(const std::shared_ptr<DaqDevice>& device,
                                                const SynchronizationOption& option) const;
    // Whether a device in option a can stand beside one in option b.
    bool isValidSyncModeCombination(const SynchronizationOption& a, const SynchronizationOption& b) const;

    void setMasterClockDevice();
    void setLoopDevice();
    void setDaqTiming();
    void clearEnableFirstChannelFlags();
    void setEnableFirstChannelFlag();

    std::atomic<int> sampleRate{1000};
    OperationMode operationMode = 1;
    Channels allChannels;              // Every channel of the tree.
    Channels acquisitionChannels;      // The active ones of the present acquisition.
    SampleCounter maxSamplesAcquired;  // Of the last acquireData, in samples of the full rate.
    Interfaces interfaces;
    std::shared_ptr<SystemDevice> systemDevice;
    std::vector<std::shared_ptr<DaqDevice>> daqDevices;
    std::shared_ptr<DaqLoop> loopDevice;
    std::shared_ptr<DaqTiming> daqTiming;
    SynchronizationOption synchronization{SynchronizationMode::None, {}};         // Chosen.
    SynchronizationOption appliedSynchronization{SynchronizationMode::None, {}};  // What the devices follow.
    DaqFactory daqFactory;
    std::shared_ptr<DaqDevice> masterClockDevice;

private:
    void setPhase(AcquisitionPhase phase);
    void countSamples();
    void chooseTimeSources();
    void publishTimeSources();

    std::atomic<AcquisitionPhase> phase_{AcquisitionPhase::Empty};
    mutable std::mutex timeSourcesMutex_;  // held for a copy of the two pointers
    TimeSources timeSources_;
    // Of the present acquisition, in samples of the full rate.
    double smallestRing_ = 0.0;  // below its limit no cycle asks further
    std::uint64_t lastSum_ = 0;  // of all channels' samples, at the last cycle that brought some

    bool hasPartners(const std::shared_ptr<DaqDevice>& device, const SynchronizationOption& option) const;
};

}  // namespace Harvane::RT::Modules::Daq
