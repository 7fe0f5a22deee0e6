#pragma once

#include "modules/daq/objectmodel/Channel.h"

namespace Harvane::RT::Modules::Daq {

// Analog output, in V.
class AOChannel : public Channel {
public:
    explicit AOChannel(int number);

    // Makes the buffer for resolution and isFloat (InvalidTypeException where none fits).
    void initialize() override;
    void initializeAcquisition() override;
    void prepareScaleFactors();

    int resolution = 32;  // Bits; 32 or 64 with isFloat, at most 32 without.
};

}  // namespace Harvane::RT::Modules::Daq
