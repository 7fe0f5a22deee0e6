#include "host/corestructure/SampleMemory.h"

#include <cstring>

#include <sys/mman.h>

#include <zorn/types/exceptions.h>

namespace Harvane::RT::Core {

SampleMemory::~SampleMemory() {
    release();
}

void SampleMemory::reserve(size_t bytes) {
    if (bytes == size_) {
        // Given back and found zeroed at the next touch. (Only the pages that the last run wrote cost anything.)
        if (bytes != 0 && madvise(data_, size_, MADV_DONTNEED) != 0) {
            std::memset(data_, 0, size_);
        }
        return;
    }
    release();
    if (bytes == 0) {
        return;
    }
    void* data = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (data == MAP_FAILED) {
        throw NoMemoryException("No memory for a ring of %zu bytes", bytes);
    }
    data_ = data;
    size_ = bytes;
}

void SampleMemory::release() {
    if (data_ != nullptr) {
        munmap(data_, size_);
    }
    data_ = nullptr;
    size_ = 0;
}

}  // namespace Harvane::RT::Core
