#pragma once

#include <sys/types.h>

#include "simulator/preload/Paths.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// open(2) of a device: a descriptor or a negative errno. The descriptor has an empty file of memory underneath, so that
// everything that is not interposed finds a real one.
int openDevice(const Location& location, int flags);

// Gives an open file its descriptor, which takes over the caller's reference; on failure that is let go of.
int giveDescriptor(ServedFile& file, bool closeOnExec);

// Major and minor number that a device's node shows.
dev_t nodeNumber(const Location& location);

}  // namespace kestrixsim
