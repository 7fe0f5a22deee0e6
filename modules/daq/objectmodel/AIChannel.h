#pragma once

#include <memory>

#include "modules/daq/objectmodel/Channel.h"

namespace Harvane::RT::Modules::Daq {

class Amplifier;

// Analog input. Its scale comes from the amplifier: raw 0 is the amplifier's offset.
class AIChannel : public Channel {
public:
    explicit AIChannel(int number);
    ~AIChannel() override;

    // Makes the buffer for resolution and isFloat (InvalidTypeException where none fits) and, without an amplifier, a
    // plain one; initializes the amplifier.
    void initialize() override;
    // Sends pending settings to the amplifier, then takes the scale from it.
    void initializeAcquisition() override;
    void prepareScaleFactors();

    std::shared_ptr<Amplifier> amplifier;
    int resolution = 32;  // Bits; 32 or 64 with isFloat, at most 32 without.
};

}  // namespace Harvane::RT::Modules::Daq
