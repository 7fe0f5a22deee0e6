#pragma once

#include <functional>

// How often `work` takes memory from the heap on this thread. Counted by standing in front of the C library's
// allocator: not for programs with sanitizers, which stand there themselves.
unsigned long heapUseOf(const std::function<void()>& work);
