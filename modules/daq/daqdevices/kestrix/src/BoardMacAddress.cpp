#include "modules/daq/daqdevices/kestrix/src/BoardMacAddress.h"

#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"

std::string board_mac_address() {
    std::string address = Harvane::RT::Modules::Daq::Platform::readSysfs("/sys/class/net/eth0/address", 256);
    // The file ends with a line end.
    if (!address.empty()) {
        address.pop_back();
    }
    return address;
}
