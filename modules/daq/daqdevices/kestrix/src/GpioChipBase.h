#pragma once

#include "modules/daq/daqdevices/kestrix/src/GpioInterfaceSysfs.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

// One GPIO chip by its base.
template <typename Interface, int base>
class GpioChipBase {
public:
    static void set(int pin, bool value) { gpio.set(base, pin, value); }
    static bool get(int pin) { return gpio.get(base, pin); }

private:
    static inline Interface gpio;
};

// The lines of the timing inputs and outputs and of the cable detection.
using BoardGpio = GpioChipBase<GpioInterfaceSysfs, Harvane::Shared::Kestrix::InstrumentPaths::gpioBase>;
