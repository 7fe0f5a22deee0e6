#include "modules/daq/daqdevices/kestrix/src/LedInterfaceSysfs.h"

#include <unistd.h>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "modules/daq/daqdevices/kestrix/src/SysfsFile.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

using namespace Harvane::RT::Modules::Daq::Platform;

namespace {

std::string ledPath(const std::string& name, const char* file) {
    const std::string own = Harvane::Shared::Kestrix::InstrumentPaths::boardLeds + name + "/" + file;
    return access(own.c_str(), W_OK) == 0 ? own
                                          : Harvane::Shared::Kestrix::InstrumentPaths::kernelLeds + name + "/" + file;
}

void writeWhole(const std::string& path, std::string_view bytes) {
    if (writeSysfs(path, bytes) < bytes.size()) {
        throw std::runtime_error("invalid write size");
    }
}

}  // namespace

void LedInterfaceSysfs::set(const std::string& name, uint8_t brightness) {
    writeWhole(ledPath(name, "brightness"), std::to_string(brightness));
}

uint8_t LedInterfaceSysfs::get(const std::string& name) {
    const std::string text = readSysfs(ledPath(name, "brightness"), 32);
    if (text.empty()) {
        throw std::runtime_error("invalid read size");
    }
    return static_cast<uint8_t>(std::strtol(text.c_str(), nullptr, 10));
}

void LedInterfaceSysfs::blink(const std::string& name, bool on) {
    // The trigger takes a fixed record of six bytes that ends the name with a zero byte.
    static constexpr std::array<char, 6> timer{"timer"};
    static constexpr std::array<char, 6> none{"none"};
    const std::array<char, 6>& trigger = on ? timer : none;
    writeWhole(ledPath(name, "trigger"), std::string_view(trigger.data(), trigger.size()));
}

void LedInterfaceSysfs::logFailure(const char* name, const std::exception& failure) noexcept {
    try {
        KESTRIX_LOG(4, "unable to drive LED {}, {}", name, failure.what());
    } catch (...) {
        // Neither lamp nor log.
    }
}
