#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "modules/daq/objectmodel/ClockState.h"
#include "modules/daq/objectmodel/SubDevice.h"

namespace Harvane::RT::Modules::Daq {

class DaqDevice;

// The sub-device that owns the synchronisation hardware and knows absolute time: microseconds since the Unix epoch
// (UTC as the operating system has it), -1 while unknown. Queries may come from any host thread.
class DaqTiming : public SubDevice {
public:
    // Absolute time of the start of the acquisition.
    virtual std::int64_t getStartTime() = 0;
    // tracking: the clock follows its reference. error: synchronisation has failed and has to start again.
    virtual std::int64_t getCurrentTime(bool& tracking, bool& error) = 0;

    // Without a discipline only what getCurrentTime says.
    virtual ClockState getClockState();

    std::shared_ptr<DaqDevice> getDaqDevice() const;

    std::atomic<bool> absTimeSynchronized{false};
};

}  // namespace Harvane::RT::Modules::Daq
