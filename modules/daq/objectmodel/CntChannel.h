#pragma once

#include "modules/daq/objectmodel/Channel.h"

namespace Harvane::RT::Modules::Daq {

// Counter input. The settings are the host's choices by number.
class CntChannel : public Channel {
public:
    explicit CntChannel(int number);

    void initialize() override;
    // Only the channel named "Count" carries the counter's settings.
    bool hasCntSettings() const;

    int cntBaseClock = 100000000;  // Hz.
    int baseMode = 1;
    int countingMode = 0;
    int timingMode = 0;
    int filterDelay = 0;
    int encoderMode = 0;
    int source = 0;
    int gate = 0;
    int sourceInvert = 0;
    int gateInvert = 0;
    int auxInvert = 0;
    int zEnabled = 0;
    bool resetOnStartMeasure = true;
    bool advancedCountingMode = false;
};

}  // namespace Harvane::RT::Modules::Daq
