#pragma once

#include <vector>

#include "modules/daq/objectmodel/Channel.h"

namespace Harvane::RT::Modules::Daq {

// One direction of a CAN port. A port has two channels, input first; samples are CanMessage records.
class CANChannel : public Channel {
public:
    explicit CANChannel(int number);

    void initialize() override;

    // Counted within the device: half of the channel's number.
    int getPortIndex() const;
    // Selectable bit rates in bit/s, in the order that the host shows.
    virtual std::vector<int> getBaudRates() const;

    int writeEnable = 0;    // 0: the port only listens.
    int baudRate = 500000;  // bit/s.
};

}  // namespace Harvane::RT::Modules::Daq
