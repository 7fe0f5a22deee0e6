#pragma once

#include <initializer_list>
#include <string>

// The instrument's shell scripts and sysfs files.
namespace Harvane::RT::Modules::Daq::Platform {

// Runs a script with its arguments joined by blanks and returns what it prints, without trailing characters that are
// not graphic. The exit status tells nothing: the reply does. Waits until the script ends.
// Throws std::system_error with the script's path when it can't be started or read.
std::string runScript(const std::string& path, std::initializer_list<std::string> arguments);

// Whether a reply tells of success.
bool isSuccess(const std::string& reply);

}  // namespace Harvane::RT::Modules::Daq::Platform
