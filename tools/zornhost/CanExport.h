#pragma once

#include <string>

#include "tools/zornhost/Output.h"

namespace zornhost {

// The CAN frames of a recording, all ports by time, in the log format of SocketCAN's tools; an empty `target` is the
// standard output. The exit code. Raises std::runtime_error for a file that is no recording or has no CAN channels.
int exportCan(const std::string& recording, const std::string& target, Output& output);

}  // namespace zornhost
