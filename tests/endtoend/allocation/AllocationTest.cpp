#include <gtest/gtest.h>
#include <zorn/manager/manager.h>

#include <cstdlib>

#include "simulator/preload/Control.h"

// Counts what the cycle's thread takes from the heap, by standing in front of the C library's allocator. Not built with
// sanitizers, which stand there themselves.

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
}

namespace {

thread_local bool counting = false;
thread_local unsigned long allocations = 0;

void count() {
    if (counting)
        ++allocations;
}

}  // namespace

extern "C" {
__attribute__((visibility("default"))) void* malloc(size_t size) {
    count();
    return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(size_t number, size_t size) {
    count();
    return __libc_calloc(number, size);
}
__attribute__((visibility("default"))) void* realloc(void* memory, size_t size) {
    count();
    return __libc_realloc(memory, size);
}
}

using namespace Harvane::RT::Core;

TEST(Allocation, CounterSeesTheHeap) {
    counting = true;
    void* volatile memory = std::malloc(10);
    auto* volatile number = new int(3);
    counting = false;
    std::free(memory);
    delete number;
    EXPECT_GE(allocations, 2u);
    allocations = 0;
}

TEST(Allocation, CycleTakesNothingFromTheHeap) {
    auto scenario = kestrixsim::Scenario::counters(2);
    scenario.slots = 2;
    scenario.supplyOn = true;
    scenario.unthrottled = true;
    kestrixsim::reset(scenario);
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
        for (int cycle = 0; cycle < 20; ++cycle)
            ASSERT_EQ(module->processData(), 0u);
        const long before = channels[0].getSamplesAcquired();
        allocations = 0;
        counting = true;
        for (int cycle = 0; cycle < 50; ++cycle)
            module->processData();
        counting = false;
        EXPECT_EQ(allocations, 0u);
        EXPECT_GT(channels[0].getSamplesAcquired(), before) << "the cycles must have moved samples";
    }
    host.stop();
    host.close();
}
