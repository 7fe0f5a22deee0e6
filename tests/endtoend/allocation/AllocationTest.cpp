#include <gtest/gtest.h>
#include <zorn/manager/manager.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "simulator/preload/Control.h"
#include "tests/endtoend/allocation/HeapCounter.h"

using namespace Harvane::RT::Core;

namespace {

// The instrument's time, in seconds, and what makes it go by while nobody else does.
std::atomic<double> nowS{0.0};

void tick(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        nowS.store(nowS.load() + 0.01);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

TEST(Allocation, CycleTakesNothingFromTheHeap) {
    auto scenario = kestrixsim::Scenario::counters(2);
    scenario.slots = 2;
    scenario.supplyOn = true;
    scenario.canPorts = 0;  // they have a test of their own
    // The test's own time: supply, clear and streams go by it.
    kestrixsim::reset(scenario, [] { return nowS.load(); });
    std::jthread ticking(tick);
    ModuleHost host;
    host.open(KESTRIX_MODULE);
    host.add();
    host.dataModule().setPropertyValue("SampleRate", Ratio{15000000, 1});
    host.configure();
    host.initialize();
    host.start();
    host.scheduler().stop();
    {
        const auto module = host.module();
        const auto channels = host.channels();
        const auto& analog =
            *std::find_if(channels.begin(), channels.end(), [](const auto& channel) { return channel.getType() == 0; });
        ticking.request_stop();
        ticking.join();
        const auto cycle = [&] {
            nowS.store(nowS.load() + 0.05);
            return module->processData();
        };
        for (int i = 0; i < 20; ++i) {
            ASSERT_EQ(cycle(), 0u);
        }
        const long before = analog.getSamplesAcquired();
        EXPECT_EQ(heapUseOf([&] {
                      for (int i = 0; i < 200; ++i) {
                          cycle();
                      }
                  }),
                  0u);
        // 200 cycles of 50 ms at 15 MS/s, less a descriptor.
        EXPECT_NEAR(static_cast<double>(analog.getSamplesAcquired() - before), 200 * 0.05 * 15e6, 500000.0);
    }
    ticking = std::jthread(tick);
    host.stop();
    host.close();
}
