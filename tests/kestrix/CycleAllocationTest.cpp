#include <cstdlib>
#include <new>

#include "modules/daq/objectmodel/AIChannel.h"
#include "tests/kestrix/KestrixFixture.h"

namespace {

thread_local bool counting = false;
thread_local size_t allocations = 0;

void* allocate(size_t size) {
    allocations += counting ? 1 : 0;
    if (void* memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

}  // namespace

void* operator new(size_t size) {
    return allocate(size);
}
void* operator new[](size_t size) {
    return allocate(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    allocations += counting ? 1 : 0;
    return std::malloc(size != 0 ? size : 1);
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    std::free(memory);
}

namespace Harvane::RT::Modules::Daq {

using CycleAllocationTest = KestrixFixture;

TEST_F(CycleAllocationTest, CycleTakesNoMemory) {
    kestrixsim::Scenario scenario = warmScenario(2);
    scenario.timeFactor = 4.0;
    bringUp(scenario);
    use({0, 1, 2, 3});
    start();
    acquire(channel(3), 100);  // what is made at first use
    allocations = 0;
    counting = true;
    acquire(channel(3), 1500);
    counting = false;
    EXPECT_EQ(allocations, 0u);
    EXPECT_GE(channel(0).samplesAcquired, 1000u);
    stop();
}

}  // namespace Harvane::RT::Modules::Daq
