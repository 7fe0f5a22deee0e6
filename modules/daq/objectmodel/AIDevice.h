#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/SubDevice.h"

namespace Harvane::RT::Modules::Daq {

class AIChannel;
class Amplifier;

// Analog input part: makes the channels and their amplifiers and holds the selectable base clocks (Hz).
class AIDevice : public SubDevice {
public:
    std::string getDisplayName() const override;
    // Makes as many channels as channels.maxChannels says, each with its amplifier.
    void initializeHardware() override;

    // The base clock that this rate needs; the present one in the base.
    virtual int getBaseClockForSampleRate(int rate);
    // A plain amplifier in the base.
    virtual std::shared_ptr<Amplifier> createAmplifier(int index);
    // Name, resolution and limits of a new channel. Its amplifier ends with one range, also where two channels share
    // an amplifier and this runs for each of them.
    virtual void setChannelProperties(std::shared_ptr<AIChannel> channel);
    // `baseClock` is the clock asked for. Where the hardware doesn't follow, an override puts back what is in force.
    virtual void onBaseClockChanged();
    // Whether there is nothing to do for this clock. A device with a clock in hardware asks the hardware.
    virtual bool runsAt(int clock);

    // Whether the amplifiers have their supply: "on", "off", "always on", or why that isn't known; empty for a device
    // that has no say in it. Any thread.
    virtual std::string getSupplyState();
    // The most descriptors of one stream that a cycle of the latest run has found waiting. Any thread.
    virtual int getMostDescriptors() const;

    // Ignored below 1, for a clock that isn't in the list and where the device runs at it. Failures of the hardware
    // pass through; baseClock then still is the clock in force, and the same request tries again.
    void setBaseClock(int clock);
    // Throws std::out_of_range beyond the list.
    std::shared_ptr<AIChannel> getAIChannel(int index) const;

    int resolution = 32;        // Bits per sample given to new channels.
    bool floatSamples = false;  // Given to new channels.
    std::vector<int> baseClocks{15000000, 10000000};
    int baseClock = 15000000;  // The base clock in force; 0 while a failed change leaves it unknown.
    bool simulationMode = false;
    bool usbMode = false;
};

}  // namespace Harvane::RT::Modules::Daq
