#include "modules/daq/daqdevices/kestrix/src/BoardIdentity.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstdio>

#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace {

constexpr uint32_t identityKey = 0xFAF320;
constexpr int maxModules = 8;  // DSP chains and converter pairs in the FPGA

}  // namespace

BoardIdentity BoardIdentity::read(Shared::Kestrix::EepromRegister& eeprom) {
    BoardIdentity identity;
    if (eeprom.Key.read() == identityKey && eeprom.Version.read() != 0) {
        std::printf("EEPROM valid\n");
        identity.modules = eeprom.MaxAIModules.read();
        std::printf("Modules %d\n", identity.modules);
        identity.deviceType = eeprom.DeviceType.read();
        std::printf("Device type %d\n", identity.deviceType);
        identity.channels = static_cast<unsigned char>((identity.modules & 127) * 2);
        identity.canPorts = eeprom.CANPorts.read();
        std::printf("CAN ports 0x%04x\n", identity.canPorts);
        const uint32_t version = eeprom.HardwareVersion.read();
        identity.hardwareRevision =
            fmt::format("{}.{}.{}.{}", version & 255, version >> 8 & 255, version >> 16 & 255, version >> 24);
    }
    identity.serialNumber = fmt::format("{:016X}", eeprom.SN.read());
    return identity;
}

int BoardIdentity::usableModules() const {
    return std::min({static_cast<int>(modules), maxModules, static_cast<int>(channels) / 2});
}

void BoardIdentity::publish() const {
    namespace Values = Shared::Kestrix::RegistersAddress;
    Values::maxAIModules = modules;
    Values::maxAIChannels = channels;
    Values::deviceType = deviceType;
}

}  // namespace Harvane::RT::Modules::Daq
