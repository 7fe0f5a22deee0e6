#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/Device.h"
#include "modules/daq/synchronization/Synchronization.h"

namespace Harvane::RT::Modules::Daq {

class AIDevice;
class CANDevice;
class DaqClock;
class DaqLoop;
class DaqTiming;
class StatusDevice;
class SubDevice;

// One physical instrument, which makes its own functional parts. A concrete device overrides the create operations of
// the parts that it has.
class DaqDevice : public Device {
public:
    DaqDevice();
    ~DaqDevice() override;

    void initialize() override;
    void initializeAcquisition(bool recursive) override;
    void startAcquisition(bool recursive) override;
    void finalizeAcquisition(bool recursive) override;
    void abortAcquisition() noexcept override;
    // Applies the chosen option to this device and its parts.
    void applySynchronization() override;

    virtual SynchronizationOptions getSynchronizationOptions();
    // Command of the device's control entry; false when it isn't known.
    virtual bool ioctl(int command, const std::string& argument, std::string& result);
    virtual std::shared_ptr<DaqClock> createDaqClock();
    virtual std::shared_ptr<DaqTiming> createDaqTiming();
    virtual std::shared_ptr<AIDevice> createAIDevice();
    virtual std::shared_ptr<SubDevice> createAODevice();
    virtual std::shared_ptr<CANDevice> createCANDevice();
    virtual std::shared_ptr<SubDevice> createCntDevice();
    virtual std::shared_ptr<StatusDevice> createStatusDevice();
    virtual std::shared_ptr<DaqLoop> createDaqLoop();

    void setSynchronizationOption(const SynchronizationOption& option);
    // Of all devices below the parent, this one included, the DaqDevices that have a device rate. None without a
    // parent, which initialize() of the tree sets.
    std::vector<std::shared_ptr<DaqDevice>> getDaqDevicesWithSR() const;

    std::shared_ptr<DaqClock> daqClock;     // This device's clock.
    std::shared_ptr<DaqClock> masterClock;  // The clock that it follows; its own at first.
    std::shared_ptr<DaqTiming> daqTiming;
    Synchronization synchronization;         // The option chosen for this device.
    Synchronization appliedSynchronization;  // The one that its parts run with: that of the last applySynchronization.
    std::shared_ptr<AIDevice> aiDevice;
    std::shared_ptr<SubDevice> aoDevice;
    std::shared_ptr<CANDevice> canDevice;
    std::shared_ptr<SubDevice> cntDevice;
    std::shared_ptr<StatusDevice> statusDevice;
    std::shared_ptr<DaqLoop> daqLoop;  // Not a child.

private:
    template <class T>
    void addPart(const std::shared_ptr<T>& part);
};

}  // namespace Harvane::RT::Modules::Daq
