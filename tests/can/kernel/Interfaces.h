#pragma once

namespace Harvane::Test {

// The tests of this folder need nothing but interfaces, and so run on a real kernel as on the simulated instrument:
//   can0, can1, vcan0   without a controller, down
//   ctl0, ctl1          controllers on one bus, down and without a bit rate; the simulated bus has 500 kbit/s
// Makes them anew. The simulated instrument puts its own function here before the first test.
using MakeInterfaces = void (*)();
void makeInterfacesInKernel();
inline constinit MakeInterfaces makeInterfaces = &makeInterfacesInKernel;

}  // namespace Harvane::Test
