#pragma once

#include <cstdint>
#include <string>

namespace Harvane::RT::Modules::Daq {

// How the discipline of the sampling clock stands, as of its last pulse. A copy, of one moment.
struct ClockState {
    std::uint64_t pulses = 0;        // seen since the instrument was opened
    std::int64_t pulseTime = -1;     // of the last one, microseconds since the Unix epoch; -1 before the first
    bool steered = false;            // the last pulse was the reference's and good enough to steer by
    bool tracking = false;           // now: the clock follows its reference
    bool error = false;              // now: it has to be started anew to follow
    double phaseErrorNs = 0.0;       // of the local pulse against the reference's, positive when it is early
    double frequencyErrorPpb = 0.0;  // over the last second, in steps of what the hardware counts
    int controlWord = 0;             // of the oscillator
    double equilibrium = 0.0;        // control word that is believed to give no frequency error
    std::string ptpPort;             // state of the PTP port, or why it isn't known; empty without a question yet
    std::string ptpClock;            // identities, empty while unknown
    std::string ptpGrandmaster;
};

}  // namespace Harvane::RT::Modules::Daq
