#pragma once

#include <string>
#include <vector>

#include "tools/zornhost/RouteText.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// Sets routes and what they need: real-time operation, the ports' permission to write, sources and outputs in use.
// Behind the choice of channels, before the preparation. Raises std::runtime_error for channels that aren't there, a
// number of cycles that can't be had, and routes of one port that don't go together. `chosen` gets the outputs, so that
// what goes out can be seen. Returns the routes in full, a line each.
std::string applyRoutes(Session& session, const std::vector<std::string>& texts, std::vector<ChannelEntry>& chosen);

}  // namespace zornhost
