#include "modules/daq/daqdevices/kestrix/src/GpioInterfaceSysfs.h"

#include <stdexcept>
#include <string>

#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

using namespace Harvane::RT::Modules::Daq::Platform;

namespace {

std::string valuePath(int base, int pin) {
    return Harvane::Shared::Kestrix::InstrumentPaths::gpioLine + std::to_string(base + pin) + "/value";
}

}  // namespace

void GpioInterfaceSysfs::set(int base, int pin, bool value) {
    if (writeSysfs(valuePath(base, pin), value ? "1" : "0") != 1) {
        throw std::runtime_error("invalid write size");
    }
}

bool GpioInterfaceSysfs::get(int base, int pin) {
    const std::string text = readSysfs(valuePath(base, pin), 1);
    if (text.size() != 1) {
        throw std::runtime_error("invalid read size");
    }
    return text == "1";
}
