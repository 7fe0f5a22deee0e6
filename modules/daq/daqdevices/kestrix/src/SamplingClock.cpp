#include "modules/daq/daqdevices/kestrix/src/SamplingClock.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <utility>

#include "modules/daq/daqdevices/kestrix/src/DspControl.h"
#include "modules/daq/daqdevices/kestrix/src/FirstFailure.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

using Shared::Kestrix::ClockOption;

// What the two parts are told for a clock.
struct SamplingClock::Setting {
    int clock;
    PlatformVCXOClockControl::ClockOption oscillator;
    ClockOption pll;
};

constexpr std::array<SamplingClock::Setting, 2> SamplingClock::settings{{
    {clock15MHz, PlatformVCXOClockControl::CLOCK_15_MHZ, ClockOption::Clock15MHz},
    {clock10MHz, PlatformVCXOClockControl::CLOCK_10_MHZ, ClockOption::Clock10MHz},
}};

const SamplingClock::Setting& SamplingClock::settingOf(int clock) {
    const auto found = std::find_if(settings.begin(), settings.end(),
                                    [clock](const Setting& setting) { return setting.clock == clock; });
    if (found == settings.end()) {
        throw std::invalid_argument("No sampling clock has " + std::to_string(clock) + " Hz.");
    }
    return *found;
}

SamplingClock::SamplingClock(std::shared_ptr<Shared::Kestrix::IRegisterAccess> access)
    : pll_(std::move(access), Shared::Kestrix::RegistersAddress::pllControlBaseAddress, true) {
    setForRates(clock15MHz);
    const auto locked = pll_.lockedClock();
    for (const Setting& setting : settings) {
        if (setting.pll == locked) {
            inForce_ = setting.clock;
            setForRates(setting.clock);
        }
    }
}

int SamplingClock::maxRate(bool filtered) const {
    return filtered ? DspControl::maxFilteredRate(forRates_) : forRates_;
}

bool SamplingClock::verify() {
    if (inForce_ != unknown && pll_.lockedClock() != settingOf(inForce_).pll) {
        inForce_ = unknown;
    }
    return inForce_ != unknown;
}

void SamplingClock::moveTo(int clock) {
    const Setting& wanted = settingOf(clock);
    const int previous = std::exchange(inForce_, unknown);
    try {
        setBothParts(wanted);
    } catch (...) {
        // Both, whichever of them failed: a script that is not heard can have done its work.
        if (previous != unknown) {
            runQuietly("The sampling clock is unknown", [&] { setBothParts(settingOf(previous)); });
        }
        throw;
    }
}

void SamplingClock::setBothParts(const Setting& setting) {
    if (!oscillator_.setClock(setting.oscillator)) {
        throw std::runtime_error("KestrixAI::configureClock failed");
    }
    pll_.setClock(setting.pll);
    if (pll_.lockedClock() != setting.pll) {
        throw std::runtime_error("The PLLs have not locked to " + std::to_string(setting.clock) + " Hz.");
    }
    inForce_ = setting.clock;
    setForRates(setting.clock);
}

void SamplingClock::setForRates(int clock) {
    forRates_ = clock;
    Shared::Kestrix::RegistersAddress::baseClock = clock;
}

}  // namespace Harvane::RT::Modules::Daq
