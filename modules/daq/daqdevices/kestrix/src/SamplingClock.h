#pragma once

#include <array>
#include <memory>

#include "modules/daq/daqdevices/kestrix/src/PlatformVCXOClockControl.h"
#include "shared/libraries/kestrix/src/registers/PllControlRegister.h"

namespace Harvane::RT::Modules::Daq {

// The clock of the converters, in Hz: the board's oscillator, switched by a script, and the FPGA's PLLs, which are told
// what comes in. The two only work as a pair, so that a change goes through both or back through both. The PLLs keep
// what they were told beyond the end of a process: what is in force is asked of them. Used from the thread that drives
// the acquisition states. The amplifiers must be without supply during a change.
class SamplingClock {
public:
    static constexpr int clock15MHz = 15000000;
    static constexpr int clock10MHz = 10000000;
    static constexpr int unknown = 0;

    // Takes over what the PLLs run at. Without both locks the clock is unknown. Register failures pass through.
    explicit SamplingClock(std::shared_ptr<Shared::Kestrix::IRegisterAccess> access);

    int inForce() const { return inForce_; }
    // What rates go by: the clock in force; while none is known the last one that was, 15 MHz at first.
    int forRates() const { return forRates_; }
    // The highest rate of a raw or a filtered stream.
    int maxRate(bool filtered) const;

    // Whether the hardware runs at the clock in force. When it says otherwise the clock is unknown from then on.
    bool verify();

    // When a part refuses, both go back to the clock that was in force and the failure passes through. When that
    // doesn't work either, or none was in force, the clock is unknown. Takes up to a second with PLLs that don't
    // answer.
    void moveTo(int clock);

private:
    struct Setting;
    static const std::array<Setting, 2> settings;
    static const Setting& settingOf(int clock);
    void setBothParts(const Setting& setting);
    void setForRates(int clock);

    PlatformVCXOClockControl oscillator_;
    Shared::Kestrix::PllControlRegister pll_;
    int inForce_ = unknown;
    int forRates_ = unknown;
};

}  // namespace Harvane::RT::Modules::Daq
