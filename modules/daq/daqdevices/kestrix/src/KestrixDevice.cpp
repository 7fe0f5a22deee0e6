#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"

#include "libraries/devices/embedded/I2cRegisterAccess.h"
#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/can/CanSocketSubDevice.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAI.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDaqClock.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDaqTiming.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixStatus.h"
#include "modules/daq/daqdevices/kestrix/src/LedBase.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace RegistersAddress = Shared::Kestrix::RegistersAddress;

namespace {

constexpr int measureMode = 2;  // operation mode of a running measurement

BoardIdentity readIdentity(const std::shared_ptr<ZornLib::Devices::Embedded::I2cRegisterAccess>& access) {
    Shared::Kestrix::EepromRegister eeprom(access, RegistersAddress::eepromSlaveAddress);
    return BoardIdentity::read(eeprom);
}

}  // namespace

KestrixDevice::KestrixDevice()
    : memoryAccess_(
          std::make_shared<ZornLib::Devices::Embedded::MmapRegisterAccess>(RegistersAddress::memoryDeviceFileName)),
      i2cAccess_(std::make_shared<ZornLib::Devices::Embedded::I2cRegisterAccess>(RegistersAddress::i2cDeviceFileName)),
      identity_(readIdentity(i2cAccess_)) {
    identity_.publish();
    manufacturer = "Harvane";
    model = "KESTRIX";
    minRate = 100;
    maxRate = SamplingClock::clock15MHz;
    serialNumber = identity_.serialNumber;
    hardwareRevision = identity_.hardwareRevision;
}

KestrixDevice::~KestrixDevice() = default;

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
    if (identity_.hasReferenceInputs()) {
        options.insert({SynchronizationMode::Pps, {}});
        options.insert({SynchronizationMode::Irig, {}});
    }
    return options;
}

bool KestrixDevice::ioctl(int command, const std::string& argument, std::string& result) {
    KESTRIX_LOG(2, "IOCtl called cmd: {}, arg: {}", command, argument);
    if (command == 1 && aiDevice) {
        aiDevice->usbMode = argument == "On";
    } else if (const auto timing = getKestrixTiming(); timing && command == 2) {
        result = timing->getDeviceClockUuid();
    } else if (timing && command == 3) {
        result = timing->getGrandmasterClockUuid();
    }
    return true;
}

std::shared_ptr<DaqClock> KestrixDevice::createDaqClock() {
    return std::make_shared<KestrixDaqClock>(memoryAccess_);
}

std::shared_ptr<DaqTiming> KestrixDevice::createDaqTiming() {
    const auto timing = std::make_shared<KestrixDaqTiming>(memoryAccess_, i2cAccess_);
    kestrixTiming_ = timing;
    return timing;
}

std::shared_ptr<AIDevice> KestrixDevice::createAIDevice() {
    auto analogInputs = std::make_shared<KestrixAI>(memoryAccess_, identity_);
    onBaseClockChanged();
    return analogInputs;
}

std::shared_ptr<CANDevice> KestrixDevice::createCANDevice() {
    return std::make_shared<CanSocketSubDevice>(identity_.canPorts);
}

std::shared_ptr<StatusDevice> KestrixDevice::createStatusDevice() {
    return std::make_shared<KestrixStatus>(memoryAccess_, i2cAccess_);
}

void KestrixDevice::onBaseClockChanged() {
    maxRate = static_cast<int>(RegistersAddress::baseClock);
    // The timing core counts by it.
    if (const auto timing = getKestrixTiming()) {
        timing->clearPreviousSynchronization();
    }
}

}  // namespace Harvane::RT::Modules::Daq
