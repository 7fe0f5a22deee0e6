#include "modules/daq/daqdevices/kestrix/src/GpioInterfaceSysfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "libraries/utils/DeviceFile.h"
#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

using namespace Harvane::RT::Modules::Daq::Platform;

namespace {

struct ValuePath {
    ValuePath(int base, int pin) {
        std::snprintf(text, sizeof text, "%s%d/value", Harvane::Shared::Kestrix::InstrumentPaths::gpioLine, base + pin);
    }
    char text[48];
};

}  // namespace

std::string GpioInterfaceSysfs::path(int base, int pin) {
    return ValuePath(base, pin).text;
}

void GpioInterfaceSysfs::set(int base, int pin, bool value) {
    if (writeSysfs(path(base, pin), value ? "1" : "0") != 1) {
        throw std::runtime_error("invalid write size");
    }
}

bool GpioInterfaceSysfs::get(int base, int pin) {
    const std::string text = readSysfs(path(base, pin), 1);
    if (text.size() != 1) {
        throw std::runtime_error("invalid read size");
    }
    return text == "1";
}

int GpioInterfaceSysfs::tryGet(int base, int pin, bool& value) noexcept {
    const Harvane::Utils::DeviceFile file(::open(ValuePath(base, pin).text, O_RDONLY | O_CLOEXEC));
    char digit = 0;
    const ssize_t count = file.isOpen() ? ::read(file.get(), &digit, 1) : -1;
    if (count != 1) {
        return count < 0 ? errno : EIO;
    }
    value = digit == '1';
    return 0;
}
