#pragma once

#include <memory>
#include <string>

#include "modules/daq/daqdevices/kestrix/src/BoardIdentity.h"
#include "modules/daq/objectmodel/DaqDevice.h"

namespace Harvane::ZornLib::Devices::Embedded {
class I2cRegisterAccess;
class MmapRegisterAccess;
}  // namespace Harvane::ZornLib::Devices::Embedded

namespace Harvane::RT::Modules::Daq {

class KestrixDaqTiming;

// The instrument: owns the access to all its registers, knows its identity and makes its parts.
class KestrixDevice : public DaqDevice {
public:
    // Reads the identity memory before any part exists. Throws std::runtime_error when a bus can't be opened or read.
    KestrixDevice();
    ~KestrixDevice() override;

    void startAcquisition(bool recursive) override;
    SynchronizationOptions getSynchronizationOptions() override;

    // Commands of the host's tools: 1 switches the USB mode of the analog inputs by "On" or anything else, between
    // acquisitions only; 2 and 3 tell the PTP identity of this clock and of its grandmaster, empty while unknown.
    // Always true.
    bool ioctl(int command, const std::string& argument, std::string& result) override;

    std::shared_ptr<DaqClock> createDaqClock() override;
    std::shared_ptr<DaqTiming> createDaqTiming() override;
    std::shared_ptr<AIDevice> createAIDevice() override;
    std::shared_ptr<CANDevice> createCANDevice() override;
    std::shared_ptr<StatusDevice> createStatusDevice() override;
    std::shared_ptr<KestrixDaqTiming> getKestrixTiming() const { return kestrixTiming_.lock(); }

    // The base clock of the analog inputs is known or has changed.
    void onBaseClockChanged();

    const BoardIdentity& getIdentity() const { return identity_; }

private:
    const std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> memoryAccess_;
    const std::shared_ptr<ZornLib::Devices::Embedded::I2cRegisterAccess> i2cAccess_;
    const BoardIdentity identity_;
    std::weak_ptr<KestrixDaqTiming> kestrixTiming_;
};

}  // namespace Harvane::RT::Modules::Daq
