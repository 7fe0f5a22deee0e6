#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "modules/daq/objectmodel/DaqClock.h"
#include "shared/libraries/kestrix/src/registers/TimingCoreRegister.h"

namespace Harvane::RT::Modules::Daq {

// The instrument's clock: ticks of the base clock since the start trigger, as the timing core counts them in 32 bits.
// Somebody has to ask more often than the counter wraps (286 s at 15 MHz). Any thread; register failures pass through.
class KestrixDaqClock : public DaqClock {
public:
    explicit KestrixDaqClock(std::shared_ptr<Shared::Kestrix::IRegisterAccess> access);

    void initializeAcquisition() override;
    // A wrap stands for 2^32 - 1 ticks.
    double getCurrentTime(bool update) override;

private:
    const std::shared_ptr<Shared::Kestrix::IRegisterAccess> access_;
    Shared::Kestrix::TimingCoreRegister timingCore_;
    std::uint64_t wrapCount_ = 0;
    std::uint64_t accumulatedCount_ = 0;  // ticks since the last wrap
    std::uint32_t lastCount_ = 0;
    std::mutex mutex_;
};

}  // namespace Harvane::RT::Modules::Daq
