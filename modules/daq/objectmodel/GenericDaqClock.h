#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "modules/daq/objectmodel/Channels.h"
#include "modules/daq/objectmodel/DaqClock.h"

namespace Harvane::RT::Modules::Daq {

// Time from the samples of the active synchronous channels or, without any, from the steady clock.
class GenericDaqClock : public DaqClock {
public:
    void initializeAcquisition() override;
    void startAcquisition() override;
    // From any thread. What it reads of the channels besides their counters is taken at initializeAcquisition, so that
    // it doesn't race with the changes of the next acquisition.
    double getCurrentTime(bool update) override;

private:
    std::mutex mutex_;
    Channels clockChannels_;
    std::vector<std::uint64_t> dividers_;  // srDiv of each clock channel.
    int baseRate_ = 0;                     // Full rate of the device, Hz.
    std::int64_t startTime_ = 0;           // Steady clock, ns; 0 while unset.
};

}  // namespace Harvane::RT::Modules::Daq
