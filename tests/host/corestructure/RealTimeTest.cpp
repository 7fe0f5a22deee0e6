// What the cycle does with a channel must not allocate: a hidden allocation takes the heap's lock and, now and then, a
// page fault.

#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "tests/host/corestructure/Helpers.h"

namespace {

thread_local long allocations = 0;

}  // namespace

__attribute__((noinline)) void* operator new(size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept { std::free(memory); }

using namespace Harvane::RT::Core;

TEST(RealTime, CycleOperationsDoNotAllocate) {
    const auto sync = syncChannel(SampleDataType::Int16);
    const auto async = asyncChannel(SampleDataType::Float64);
    reserve(sync, 100);
    reserve(async, 100);
    const auto lock = newSync();

    const long before = allocations;
    EXPECT_GT(before, 0) << "allocations of the libraries are counted";
    ErrCode worst = Errors::Success;
    double value = 0.0;
    long number = 0;
    void* address = nullptr;
    IChannelBuffer* buffer = nullptr;
    for (int cycle = 0; cycle < 50; ++cycle) {
        worst |= lock->lock();
        worst |= sync->getBuffer(&buffer);
        worst |= buffer->getSample(0, &address);
        buffer->releaseRef();
        worst |= sync->incrementSamplePosition(7);
        worst |= sync->getCurrentSample(&value);
        worst |= async->queryInterface(IAsyncChannel::Id, &address);
        auto* adder = static_cast<IAsyncChannel*>(address);
        worst |= adder->addSample(cycle, &value);
        worst |= adder->getSamplesAcquired(&number);
        worst |= adder->getTimestampAtPos(0, &number);
        adder->releaseRef();
        worst |= lock->unlock();
        // Refusals, too.
        EXPECT_EQ(sync->incrementSamplePosition(1000), Errors::OutOfRange);
        EXPECT_EQ(sync->getSampleAtRelativePos(-1000, &value), Errors::OutOfRange);
    }
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(worst, Errors::Success);
}
