#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"

#include <cstdio>

#include <fmt/core.h>

#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAI.h"
#include "modules/daq/daqdevices/kestrix/src/LedBase.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace RegistersAddress = Shared::Kestrix::RegistersAddress;

namespace {

constexpr uint32_t identityKey = 0xFAF320;
constexpr int measureMode = 2;  // operation mode of a running measurement

}  // namespace

KestrixDevice::KestrixDevice()
    : memoryAccess_(
          std::make_shared<ZornLib::Devices::Embedded::MmapRegisterAccess>(RegistersAddress::memoryDeviceFileName)),
      i2cAccess_(std::make_shared<ZornLib::Devices::Embedded::I2cRegisterAccess>(RegistersAddress::i2cDeviceFileName)) {
    manufacturer = "Harvane";
    model = "KESTRIX";
    minRate = 100;
    maxRate = static_cast<int>(RegistersAddress::baseClock);
    readIdentity();
}

KestrixDevice::~KestrixDevice() = default;

void KestrixDevice::readIdentity() {
    Shared::Kestrix::EepromRegister eeprom(i2cAccess_, RegistersAddress::eepromSlaveAddress);
    if (eeprom.Key.read() == identityKey && eeprom.Version.read() != 0) {
        std::printf("EEPROM valid\n");
        RegistersAddress::maxAIModules = eeprom.MaxAIModules.read();
        std::printf("Modules %d\n", RegistersAddress::maxAIModules);
        RegistersAddress::deviceType = eeprom.DeviceType.read();
        std::printf("Device type %d\n", RegistersAddress::deviceType);
        RegistersAddress::maxAIChannels = static_cast<unsigned char>((RegistersAddress::maxAIModules & 127) * 2);
        canPorts_ = eeprom.CANPorts.read();
        std::printf("CAN ports 0x%04x\n", canPorts_);
        const uint32_t version = eeprom.HardwareVersion.read();
        hardwareRevision =
            fmt::format("{}.{}.{}.{}", version & 255, version >> 8 & 255, version >> 16 & 255, version >> 24);
    }
    serialNumber = fmt::format("{:016X}", eeprom.SN.read());
}

void KestrixDevice::startAcquisition(bool recursive) {
    DaqDevice::startAcquisition(recursive);
    if (static_cast<int>(operationMode) == measureMode) {
        StatusLed::tryBlink(true);
        AlarmLed::trySet(0);
    } else {
        StatusLed::tryBlink(false);
        StatusLed::trySet(255);
    }
}

SynchronizationOptions KestrixDevice::getSynchronizationOptions() {
    SynchronizationOptions options;
    options.insert({SynchronizationMode::Standalone, {}});
    options.insert({SynchronizationMode::Standalone, {SynchronizationMode::Ptp}});
    options.insert({SynchronizationMode::Ptp, {}});
    // The small board has no inputs for them.
    if (RegistersAddress::deviceType == 0) {
        options.insert({SynchronizationMode::Pps, {}});
        options.insert({SynchronizationMode::Irig, {}});
    }
    return options;
}

bool KestrixDevice::ioctl(int command, const std::string& argument, std::string& /*result*/) {
    KESTRIX_LOG(2, "IOCtl called cmd: {}, arg: {}", command, argument);
    if (command == 1 && aiDevice) {
        aiDevice->usbMode = argument == "On";
    }
    return true;
}

std::shared_ptr<AIDevice> KestrixDevice::createAIDevice() {
    return std::make_shared<KestrixAI>(memoryAccess_);
}

void KestrixDevice::onBaseClockChanged() {
    maxRate = static_cast<int>(RegistersAddress::baseClock);
}

}  // namespace Harvane::RT::Modules::Daq
