#pragma once

#include <cstdint>
#include <string>

namespace Harvane::Shared::Kestrix {
class EepromRegister;
}

namespace Harvane::RT::Modules::Daq {

// Which board this is. Without a valid identity memory everything but the serial number is that of the usual board.
struct BoardIdentity {
    // Prints what a valid memory says on standard output. Failures of the bus pass through.
    static BoardIdentity read(Shared::Kestrix::EepromRegister& eeprom);

    // Slots that exist as hardware, whatever the memory says.
    int usableModules() const;
    // The modules of the small board are always on.
    bool hasModuleSupply() const { return deviceType == 0; }
    // The small board has no inputs for PPS and IRIG.
    bool hasReferenceInputs() const { return deviceType == 0; }

    // Makes it known to those who know no device. A board without a valid memory leaves nothing of an earlier one.
    void publish() const;

    unsigned char modules = 8;  // amplifier slots as the memory has them
    unsigned char channels = 16;
    unsigned char deviceType = 0;  // 0 the 8-channel board, 1 the 2-channel board
    uint16_t canPorts = 0x8000;    // bit 15 - n: port n exists
    std::string serialNumber;      // 16 hexadecimal digits
    std::string hardwareRevision;  // four numbers; empty without a valid memory
};

}  // namespace Harvane::RT::Modules::Daq
