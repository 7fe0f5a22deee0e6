#include "modules/daq/objectmodel/InterfaceHelper.h"

namespace Harvane::RT::Modules::Daq {

void InterfaceHelper::sendCommand(const std::string&, int, const unsigned char*, unsigned long, unsigned char*,
                                  unsigned long&, int) {}

unsigned long InterfaceHelper::readData(const std::string&, int, unsigned char*, unsigned long, int) {
    return static_cast<unsigned long>(-1);
}

unsigned long InterfaceHelper::writeData(const std::string&, int, const unsigned char*, unsigned long, int) {
    return static_cast<unsigned long>(-1);
}

}  // namespace Harvane::RT::Modules::Daq
