#include "tests/endtoend/allocation/HeapCounter.h"

#include <gtest/gtest.h>

#include <cstdlib>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
}

namespace {

thread_local bool counting = false;
thread_local unsigned long allocations = 0;

void count() {
    if (counting) {
        ++allocations;
    }
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

unsigned long heapUseOf(const std::function<void()>& work) {
    allocations = 0;
    counting = true;
    work();
    counting = false;
    return allocations;
}

TEST(HeapCounter, SeesTheHeap) {
    EXPECT_GE(heapUseOf([] {
                  void* volatile memory = std::malloc(10);
                  auto* volatile number = new int(3);
                  std::free(memory);
                  delete number;
              }),
              2u);
}
