#pragma once

#include <atomic>
#include <cstdint>
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
    // Unit, limits, scale and offset from what is in force in the amplifier.
    void prepareScaleFactors();
    // What one step of an integer sample stands for, before the amplifier's scale; 1 for float samples.
    double quantum() const;

    std::shared_ptr<Amplifier> amplifier;
    std::atomic<std::uint32_t> run{0};  // Number of the acquisition that has been set up last.
    int resolution = 32;                // Bits; 32 or 64 with isFloat, at most 32 without.
};

}  // namespace Harvane::RT::Modules::Daq
