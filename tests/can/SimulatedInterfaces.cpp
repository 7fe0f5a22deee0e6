#include "tests/can/CanFixture.h"
#include "tests/can/kernel/Interfaces.h"

namespace Harvane::Test {

namespace {

void makeSimulatedInterfaces() {
    auto scenario = withInterfaces({"can0", "can1", "vcan0", "ctl0", "ctl1"});
    auto& interfaces = *scenario.can.interfaces;
    interfaces[0].virtualDevice = interfaces[1].virtualDevice = true;
    interfaces[4].bus = interfaces[3].bus;
    // What else runs on a machine may want stamps or not; the tests have to come out alike.
    scenario.can.stampsFromStart = false;
    kestrixsim::reset(scenario);
}

const bool replaced = (makeInterfaces = &makeSimulatedInterfaces, true);

}  // namespace

}  // namespace Harvane::Test
