#pragma once

#include <atomic>
#include <cstddef>

#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// Which descriptor belongs to which open file of the instrument. Lookup takes no lock.
class DescriptorTable {
public:
    // Descriptors from here on cannot be served: open fails with EMFILE.
    static constexpr int limit = 65536;

    static ServedFile* find(int fd) {
        return static_cast<unsigned>(fd) < static_cast<unsigned>(limit)
                   ? slots_[static_cast<size_t>(fd)].load(std::memory_order_acquire)
                   : nullptr;
    }

    // Takes over one reference of `file`. What stood at `fd` is forgotten. False beyond the limit.
    static bool put(int fd, ServedFile& file);

    // The descriptor is about to be closed, or has been without our knowledge.
    static void forget(int fd);
    static void forgetRange(unsigned first, unsigned last);

    static int count() { return count_.load(std::memory_order_relaxed); }

private:
    static constinit std::atomic<ServedFile*> slots_[limit];
    static constinit std::atomic<int> count_;
};

}  // namespace kestrixsim
