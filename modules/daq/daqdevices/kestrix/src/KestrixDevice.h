#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "modules/daq/objectmodel/DaqDevice.h"

namespace Harvane::ZornLib::Devices::Embedded {
class I2cRegisterAccess;
class MmapRegisterAccess;
}  // namespace Harvane::ZornLib::Devices::Embedded

namespace Harvane::RT::Modules::Daq {

// The instrument: owns the access to all its registers, knows its identity and makes its parts.
class KestrixDevice : public DaqDevice {
public:
    // Reads the identity memory and fills the board-wide values before any part exists. An identity memory that
    // isn't valid leaves the defaults. Throws std::runtime_error when a bus can't be opened or read.
    KestrixDevice();
    ~KestrixDevice() override;

    void startAcquisition(bool recursive) override;
    SynchronizationOptions getSynchronizationOptions() override;

    // Commands of the host's tools: 1 switches the USB mode of the analog inputs by "On" or anything else. Between
    // acquisitions only. Always true.
    bool ioctl(int command, const std::string& argument, std::string& result) override;

    std::shared_ptr<AIDevice> createAIDevice() override;

    // The analog inputs have moved to another base clock.
    void onBaseClockChanged();

private:
    void readIdentity();

    const std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> memoryAccess_;
    const std::shared_ptr<ZornLib::Devices::Embedded::I2cRegisterAccess> i2cAccess_;
    uint16_t canPorts_ = 0x8000;  // bit 15 - n: port n exists
};

}  // namespace Harvane::RT::Modules::Daq
