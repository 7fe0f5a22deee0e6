#include "modules/daq/daqdevices/kestrix/src/KestrixDaqClock.h"

#include <utility>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace RegistersAddress = Shared::Kestrix::RegistersAddress;

KestrixDaqClock::KestrixDaqClock(std::shared_ptr<Shared::Kestrix::IRegisterAccess> access)
    : access_(std::move(access)), timingCore_(access_, RegistersAddress::timingCoreBaseAddress, true) {}

void KestrixDaqClock::initializeAcquisition() {
    const std::lock_guard<std::mutex> guard(mutex_);
    wrapCount_ = 0;
    accumulatedCount_ = 0;
    lastCount_ = 0;
}

double KestrixDaqClock::getCurrentTime(bool) {
    const std::lock_guard<std::mutex> guard(mutex_);
    const std::uint32_t count = timingCore_.CLKCNT.read();
    if (lastCount_ > count) {
        ++wrapCount_;
        accumulatedCount_ = count;
    } else {
        accumulatedCount_ += count - lastCount_;
    }
    lastCount_ = count;
    if (wrapCount_ == 0 && accumulatedCount_ == 0) {
        KESTRIX_LOG(3, "Clock count 0");
        return -1.0;
    }
    return static_cast<double>(wrapCount_ * 4294967295 + accumulatedCount_) /
           static_cast<double>(RegistersAddress::baseClock);
}

}  // namespace Harvane::RT::Modules::Daq
