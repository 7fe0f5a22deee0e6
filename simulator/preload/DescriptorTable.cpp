#include "simulator/preload/DescriptorTable.h"

#include <algorithm>

#include "simulator/preload/Runtime.h"

namespace kestrixsim {

constinit std::atomic<ServedFile*> DescriptorTable::slots_[DescriptorTable::limit] = {};
constinit std::atomic<int> DescriptorTable::count_{0};

bool DescriptorTable::put(int fd, ServedFile& file) {
    if (fd < 0 || fd >= limit) {
        return false;
    }
    ServedFile* old = slots_[static_cast<size_t>(fd)].exchange(&file, std::memory_order_acq_rel);
    if (old != nullptr) {
        old->release();
    } else {
        count_.fetch_add(1, std::memory_order_relaxed);
    }
    return true;
}

void DescriptorTable::forget(int fd) {
    if (find(fd) == nullptr || !runtime::ownsProcess()) {
        return;
    }
    if (ServedFile* old = slots_[static_cast<size_t>(fd)].exchange(nullptr, std::memory_order_acq_rel)) {
        count_.fetch_sub(1, std::memory_order_relaxed);
        old->release();
    }
}

void DescriptorTable::forgetRange(unsigned first, unsigned last) {
    if (count() == 0) {
        return;
    }
    for (unsigned fd = first; fd <= std::min(last, static_cast<unsigned>(limit - 1)); ++fd) {
        forget(static_cast<int>(fd));
    }
}

}  // namespace kestrixsim
