#pragma once

#include <functional>
#include <string>
#include <vector>

#include "simulator/model/Scenario.h"

namespace kestrixsim {

// Writes the plain files of the instrument below `folder`, which is made if need be: LEDs, GPIO lines, switches of the
// timing driver, temperatures, the network address, the CAN interfaces, and the platform scripts for people.
// `sensorText`: what stands in a sensor's file. Throws std::filesystem::filesystem_error or std::runtime_error when a
// file cannot be written.
void populateRootFolder(const std::string& folder, const Scenario& scenario, const std::string& networkAddress,
                        const std::vector<std::string>& canInterfaces,
                        const std::function<std::string(const std::string& path)>& sensorText);

// Names of the CAN interfaces of the machine that this runs on.
std::vector<std::string> machineCanInterfaces();

}  // namespace kestrixsim
