#pragma once

#include <memory>
#include <vector>

namespace Harvane::ZornLib::Devices::Embedded {
class IRegisterAccess;
}
namespace Harvane::Shared::Kestrix {
class AdcControlRegister;
}

namespace Harvane::RT::Modules::Daq {

// Enables the converter interfaces of all modules together, with the trigger mask that says which modules run.
// In simulation mode the FPGA's debug counters stand in for the converters. Construction doesn't touch the hardware.
class AdcControl {
public:
    explicit AdcControl(std::shared_ptr<ZornLib::Devices::Embedded::IRegisterAccess> access);
    ~AdcControl();
    AdcControl(const AdcControl&) = delete;
    AdcControl& operator=(const AdcControl&) = delete;

    // One entry for each module, eight at most. A standalone start is triggered at once, any other by the timing core.
    void enableAdcs(const std::vector<bool>& enabled, bool simulationMode, bool standalone);
    // Clears every field, also when one of them fails; the first failure passes through.
    void disableAdcs();

private:
    bool simulation_ = false;  // of the last enableAdcs
    const std::unique_ptr<Shared::Kestrix::AdcControlRegister> adcRegister_;
};

}  // namespace Harvane::RT::Modules::Daq
