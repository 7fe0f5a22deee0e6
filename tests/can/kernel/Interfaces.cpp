#include "tests/can/kernel/Interfaces.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace Harvane::Test {

namespace {

void mustRun(const std::string& line) {
    ASSERT_EQ(std::system(line.c_str()), 0) << line;
}

}  // namespace

// A controller's driver calls its interfaces as the kernel likes, and keeps its settings as long as it lives.
void makeInterfacesInKernel() {
    // Each processor has a queue of the frames that were written on it: moved from one to the other, a test could see
    // its own overtake one another.
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    ASSERT_EQ(::sched_setaffinity(0, sizeof first, &first), 0);
    for (const std::string name : {"can0", "can1", "vcan0"}) {
        if (std::filesystem::exists("/sys/class/net/" + name)) {
            mustRun("ip link del " + name);
        }
    }
    if (std::filesystem::exists("/sys/module/kvaser_pci")) {
        mustRun("rmmod kvaser_pci");
    }
    mustRun("modprobe kvaser_pci");
    mustRun("ip link set can0 name ctl0");
    mustRun("ip link set can1 name ctl1");
    for (const std::string name : {"can0", "can1", "vcan0"}) {
        mustRun("ip link add dev " + name + " type vcan");
    }
}

}  // namespace Harvane::Test
