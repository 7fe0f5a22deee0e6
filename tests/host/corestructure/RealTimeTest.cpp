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
    for (int cycle = 0; cycle < 50; ++cycle) {
        worst |= lock->lock();
        IChannelBuffer* buffer = nullptr;
        size_t position = 0;
        void* address = nullptr;
        worst |= sync->getBuffer(&buffer);
        worst |= buffer->getPosition(&position);
        worst |= buffer->getSample(position, &address);
        worst |= sync->incrementSamplePosition(7);
        buffer->releaseRef();
        worst |= sync->getSamplesAcquired(&number);
        worst |= sync->getSampleAtRelativePos(-1, &value);
        worst |= sync->getCurrentSample(&value);
        void* interface = nullptr;
        worst |= async->queryInterface(IAsyncChannel::Id, &interface);
        auto* adder = static_cast<IAsyncChannel*>(interface);
        worst |= adder->addSample(cycle, &value);
        worst |= adder->getSamplesAcquired(&number);
        worst |= adder->getTimestampAtPos(0, &number);
        worst |= adder->getSampleAddressAtPos(0, &address);
        adder->releaseRef();
        worst |= lock->unlock();
        // Refusals, too.
        EXPECT_EQ(sync->incrementSamplePosition(1000), Errors::OutOfRange);
        EXPECT_EQ(sync->getSampleAtRelativePos(-1000, &value), Errors::OutOfRange);
    }
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(worst, Errors::Success);
    EXPECT_EQ(sync.getSamplesAcquired(), 350);
}
