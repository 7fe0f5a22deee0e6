#pragma once

#include <memory>

#include "modules/daq/objectmodel/StatusDevice.h"

namespace Harvane::ZornLib::Devices::Embedded {
class IRegisterAccess;
}

namespace Harvane::RT::Modules::Daq {

// The instrument's own state as channels: temperatures of processor and board, phase error and control word of the
// sampling clock, and where the board has them the two lines that detect a cable and the temperature in the cable.
//
// Which sensors there are is found out once, at construction. A thread of its own reads them every 2.5 s, as long as
// somebody wants their values: a run with a temperature channel in use does, and so does getHealthState. After that
// they are read eight times more, which is 20 s, and then rest. A sensor that fails counts as 0.0 degrees until it
// works again; one that hangs keeps the sensors behind it waiting, and the destructor, for that one read.
//
// A temperature channel gets the highest of its sensors every 2.5 s; the others a sample in each cycle. None gets one
// before the clock runs. What a channel had no place for is counted and told (LossCount): it stands in front of the
// analog inputs in the walk, so nothing that is wrong here may end the cycle.
class KestrixStatus : public StatusDevice {
public:
    // Nothing of the memory is needed as yet.
    KestrixStatus(const std::shared_ptr<ZornLib::Devices::Embedded::IRegisterAccess>& memoryAccess,
                  const std::shared_ptr<ZornLib::Devices::Embedded::IRegisterAccess>& i2cAccess);
    // Waits for the read of one sensor at most.
    ~KestrixStatus() override;

    void initializeHardware() override;
    void initializeAcquisition(bool recursive) override;
    // Never throws. Allocates nothing and reads no sensor as long as nothing fails; only the two lines are files.
    void acquireData() override;

    // Asking wants values: who asks every 20 s or more often has none older than 2.5 s and what all sensors together
    // take. Who asks after a longer rest gets old ones, of the age that they say, and fresh ones from the next round
    // on. The lines are read here and now.
    HealthState getHealthState() override;

private:
    class Pimpl;
    const std::unique_ptr<Pimpl> pimpl_;
};

}  // namespace Harvane::RT::Modules::Daq
