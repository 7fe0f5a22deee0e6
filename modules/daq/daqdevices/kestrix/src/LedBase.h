#pragma once

#include <cstdint>
#include <exception>

#include "modules/daq/daqdevices/kestrix/src/LedInterfaceSysfs.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

// One LED by its name.
template <typename Interface, const char* name>
class LedBase {
public:
    static void set(uint8_t brightness) { led.set(name, brightness); }
    static uint8_t get() { return led.get(name); }
    static void blink(bool on) { led.blink(name, on); }

    // As set and blink. A lamp is no reason to fail: that it can't be driven is logged at level 4.
    static void trySet(uint8_t brightness) noexcept {
        attempt([brightness] { set(brightness); });
    }
    static void tryBlink(bool on) noexcept {
        attempt([on] { blink(on); });
    }

private:
    template <typename Action>
    static void attempt(Action action) noexcept {
        try {
            action();
        } catch (const std::exception& failure) {
            Interface::logFailure(name, failure);
        }
    }

    static inline Interface led;
};

using StatusLed = LedBase<LedInterfaceSysfs, Harvane::Shared::Kestrix::InstrumentPaths::statusLed>;
using AlarmLed = LedBase<LedInterfaceSysfs, Harvane::Shared::Kestrix::InstrumentPaths::alarmLed>;
