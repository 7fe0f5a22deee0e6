#include "modules/daq/daqdevices/kestrix/src/AdcControl.h"

#include "libraries/devices/embedded/IRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/FirstFailure.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/AdcControlRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

AdcControl::AdcControl(std::shared_ptr<ZornLib::Devices::Embedded::IRegisterAccess> access)
    : adcRegister_(std::make_unique<Shared::Kestrix::AdcControlRegister>(
          std::move(access), Shared::Kestrix::RegistersAddress::adcControlBaseAddress, true)) {}

AdcControl::~AdcControl() = default;

void AdcControl::enableAdcs(const std::vector<bool>& enabled, bool simulationMode, bool standalone) {
    adcRegister_->ADCEN.write(false);
    adcRegister_->CNTCTRL.write(false);
    adcRegister_->RESCNTTO0.write(false);
    for (auto* counter : adcRegister_->ENDBGCNT) {
        counter->write(false);
    }
    simulation_ = simulationMode;

    unsigned int mask = 0;
    for (size_t module = enabled.size(); module-- > 0;) {
        mask = (mask * 2 + (enabled[module] ? 1 : 0)) & 255;
        if (simulation_ && module < adcRegister_->ENDBGCNT.size()) {
            adcRegister_->ENDBGCNT[module]->write(enabled[module]);
        }
    }
    (standalone ? adcRegister_->TMAN : adcRegister_->TMASK).write(static_cast<unsigned char>(mask));
    adcRegister_->ADCEN.write(!simulation_);
    if (simulation_) {
        adcRegister_->RESCNTTO0.write(false);
        adcRegister_->CNTCTRL.write(true);
    }
    KESTRIX_LOG(1, "enabling ADCs, simulation mode {}, mask: {:02x}", simulation_, mask);
}

void AdcControl::disableAdcs() {
    FirstFailure failure;
    const auto clear = [&](auto& field) { failure.attempt("converters", [&] { field.write(0); }); };
    clear(adcRegister_->ADCEN);
    clear(adcRegister_->TMAN);
    clear(adcRegister_->TMASK);
    clear(adcRegister_->CNTCTRL);
    clear(adcRegister_->RESCNTTO0);
    for (auto* counter : adcRegister_->ENDBGCNT) {
        clear(*counter);
    }
    failure.rethrow();
}

}  // namespace Harvane::RT::Modules::Daq
