#include "modules/daq/daqdevices/kestrix/src/PlatformVCXOClockControl.h"

#include <string>

#include "modules/daq/daqdevices/kestrix/src/PlatformScript.h"
#include "shared/libraries/kestrix/src/paths/InstrumentPaths.h"

using namespace Harvane::RT::Modules::Daq::Platform;

bool PlatformVCXOClockControl::setClock(ClockOption option) {
    const std::string reply = runScript(Harvane::Shared::Kestrix::InstrumentPaths::vcxoScript,
                                        {"set_clock", std::to_string(static_cast<int>(option))});
    // The script reports its steps; its verdict is the last line.
    const size_t lineEnd = reply.rfind('\n');
    return isSuccess(lineEnd == std::string::npos ? reply : reply.substr(lineEnd + 1));
}
