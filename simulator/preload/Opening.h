#pragma once

#include <sys/types.h>

#include "simulator/preload/Paths.h"

namespace kestrixsim {

// open(2) of a device: a descriptor or a negative errno. The descriptor has an empty file of memory underneath, so that
// everything that is not interposed finds a real one.
int openDevice(const Location& location, int flags);

// Major and minor number that a device's node shows.
dev_t nodeNumber(const Location& location);

}  // namespace kestrixsim
