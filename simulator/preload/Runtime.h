#pragma once

#include <mutex>
#include <string>

#include "simulator/preload/Control.h"

// What the interposed functions share in one process: the instrument, the root folder, the lock, the way through fork.
// Everything is made at first use, because other libraries' constructors may call in before ours have run, and nothing
// is destroyed at the end, because their destructors may call in after ours.
namespace kestrixsim::runtime {

// For the rare and short things: making the instrument and the root folder, recycling files. Never held while a
// descriptor is read, written or waited for.
std::mutex& lock();

// As instrument(), for an interposed call, which has no caller that could handle an exception: a scenario that
// cannot be read ends the program with a message and status 78.
Instrument& get();

// The instrument if there is one; never makes it.
Instrument* existing();

// The root folder; null if it cannot be made or the process is ending. Valid until the next reset().
const std::string* root();

// The same as far as it has been made, without making it; takes no lock.
const std::string* rootInPlace();

// False in a child of vfork, which runs on its parent's memory and must not change what we hold there.
bool ownsProcess();

}  // namespace kestrixsim::runtime
