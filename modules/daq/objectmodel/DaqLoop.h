#pragma once

#include <functional>
#include <vector>

#include "modules/daq/objectmodel/DaqObject.h"

namespace Harvane::RT::Modules::Daq {

// A device's own source of cycles, which can drive the acquisition instead of the host's scheduler. Rates are in
// cycles per second.
class DaqLoop : public DaqObject {
public:
    // The nearest cycle rate that the loop can run at.
    virtual int checkCycleRate(int requested) const = 0;
    // The same, as far as it suits these sample rates of devices in Hz.
    virtual int checkCycleRate(int requested, const std::vector<int>& deviceSampleRates) const = 0;
    // The function to run each cycle, on a thread of the loop's choosing; an empty one ends the cycles. When this
    // returns the previous function no longer runs.
    virtual void setCycleFunction(const std::function<void()>& function) = 0;

    bool isLoopMaster = false;  // Exactly one loop of the tree drives the cycles.
    int cycleRate = 100;
    int minCycleRate = 1;
    int maxCycleRate = 1000;
};

}  // namespace Harvane::RT::Modules::Daq
