#pragma once

#include <string>
#include <vector>

namespace kestrixsim {

struct RunOptions {
    std::string scenario;      // file; empty: the standard one
    std::string preloadFirst;  // library in front of the simulator; empty: from the environment, or none
    std::vector<std::string> command;
};

// Replaces this process by the program, with the simulator preloaded. Comes back only if that fails, with 126 or 127 as
// a shell has them. Throws ScenarioError for a wrong scenario file.
int runProgram(const RunOptions& options);

}  // namespace kestrixsim
