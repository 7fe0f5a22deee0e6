#pragma once

#include <cstdint>

#include "modules/daq/daqdevices/kestrix/src/LedInterfaceSysfs.h"

// One LED by its name.
template <typename Interface, const char* name>
class LedBase {
public:
    static void set(uint8_t brightness) { led.set(name, brightness); }
    static uint8_t get() { return led.get(name); }
    static void blink(bool on) { led.blink(name, on); }

private:
    static inline Interface led;
};

inline constexpr char statusLedName[] = "led2";
inline constexpr char alarmLedName[] = "alarm";

using StatusLed = LedBase<LedInterfaceSysfs, statusLedName>;
using AlarmLed = LedBase<LedInterfaceSysfs, alarmLedName>;
