#pragma once

#include <functional>
#include <string>

#include "simulator/model/Instrument.h"

// The C++ side of libkestrixsim.so for programs that link it: which instrument the interposed system calls reach.
namespace kestrixsim {

// The instrument in force. Made at first use: from the file named by KESTRIX_SIM_SCENARIO, or Scenario::standard().
__attribute__((visibility("default"))) Instrument& instrument();

// Replaces the instrument by a new one. No descriptor of the old one may be open.
__attribute__((visibility("default"))) Instrument& reset(Scenario scenario);
// The same with a source of time of the caller's: `now` gives steady seconds and may be called by any thread. Streams
// then deliver what that time makes ready, and nothing else.
__attribute__((visibility("default"))) Instrument& reset(Scenario scenario, std::function<double()> now);

// The folder that stands in for the instrument's plain files in this process.
__attribute__((visibility("default"))) std::string rootFolder();

// Number of descriptors of the instrument that are open now.
__attribute__((visibility("default"))) int openDescriptors();

}  // namespace kestrixsim
