#include "modules/daq/daqdevices/kestrix/src/BoardMacAddress.h"

#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

std::string board_mac_address() {
    std::string address =
        Harvane::RT::Modules::Daq::Platform::readSysfs(Harvane::Shared::Kestrix::InstrumentPaths::networkAddress, 256);
    // The file ends with a line end.
    if (!address.empty()) {
        address.pop_back();
    }
    return address;
}
