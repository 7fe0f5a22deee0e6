#pragma once

#include <string>

#include "modules/daq/objectmodel/DaqException.h"

namespace Harvane::RT::Modules::Daq {

// How far the way to a run has been gone. Stopping, and a failed start, end in Prepared.
enum class AcquisitionPhase {
    Empty,        // no instrument: nothing has been added, or adding failed
    Scanned,      // the device tree stands
    Prepared,     // the operation mode is passed down; nothing is switched on
    Initialised,  // the coming run is set up with what the user has chosen: every change takes it back to Prepared
    Running,
    Stopping,
};

// What a host asks for.
enum class AcquisitionStep { Add, Configure, Initialize, BeforeStart, Start, ProcessData, Stop };

// The one table of which step is possible in which phase.
bool isPossible(AcquisitionStep step, AcquisitionPhase phase);

// Why a step isn't possible in a phase, naming both, and what would have to be done. Empty when it is.
std::string refusalOf(AcquisitionStep step, AcquisitionPhase phase);

// A step that isn't possible now. Nothing has been changed.
class WrongPhaseException : public DaqException {
public:
    using DaqException::DaqException;
};

}  // namespace Harvane::RT::Modules::Daq
