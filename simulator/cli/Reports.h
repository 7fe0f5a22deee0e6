#pragma once

#include <string>

// What the commands other than `run` print on standard output. Each returns the exit status.
namespace kestrixsim {

int printScenario(bool counters);

// Status 1 and a message on standard error (with `json` a report as well) if the file is wrong.
int checkScenario(const std::string& file, bool json);

int listDoors(bool json);

}  // namespace kestrixsim
