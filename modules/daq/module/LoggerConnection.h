#pragma once

namespace Harvane::RT::Modules::Daq {

// Leads the module's messages to the host's logger "DaqModule", which is made when the host has none, and lets all of
// them pass; what the module's threads have to say, too. May be repeated. Throws the host's exception when there is no
// logger to be had.
void connectLogger();

}  // namespace Harvane::RT::Modules::Daq
