#include "simulator/preload/Mappings.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Runtime.h"

namespace kestrixsim {

constinit Mappings::Slot Mappings::slots_[Mappings::limit];
constinit std::atomic<int> Mappings::count_{0};

namespace {

size_t wholePages(size_t length) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (length + page - 1) / page * page;
}

// Nothing answers on the bus there: the mapping works, an access is a bus error. An empty file of memory has just that.
void* emptyMemory(uint64_t physicalAddress, size_t size, int protection, int& error) {
    char text[96];
    const int length =
        std::snprintf(text, sizeof text, "kestrix-sim: no register block at 0x%llx, an access ends in SIGBUS\n",
                      static_cast<unsigned long long>(physicalAddress));
    (void)!next::write(2, text, static_cast<size_t>(length));
    const int fd = memfd_create("kestrix-nothing", MFD_CLOEXEC);
    void* memory = fd >= 0 ? next::mmap(nullptr, size, protection, MAP_SHARED, fd, 0) : MAP_FAILED;
    if (memory == MAP_FAILED) {
        error = errno;
    }
    if (fd >= 0) {
        next::close(fd);
    }
    return memory;
}

}  // namespace

void Mappings::letGo(const Slot& slot, const uint32_t* filledWith) {
    if (filledWith != slot.page) {
        delete[] filledWith;
    }
}

void* Mappings::make(uint64_t physicalAddress, size_t length, int protection, bool shared, int& error) {
    if (physicalAddress % static_cast<size_t>(sysconf(_SC_PAGESIZE)) != 0) {
        error = EINVAL;
        return MAP_FAILED;
    }
    Slot* slot = nullptr;
    for (Slot& candidate : slots_) {
        uintptr_t free = 0;
        if (candidate.address.load(std::memory_order_relaxed) == 0 &&
            candidate.address.compare_exchange_strong(free, 1, std::memory_order_acquire)) {
            slot = &candidate;
            break;
        }
    }
    if (slot == nullptr) {
        error = ENOMEM;
        return MAP_FAILED;
    }
    const size_t size = wholePages(length);
    if (!runtime::get().hasBlock(physicalAddress, size)) {
        slot->address.store(0, std::memory_order_release);
        return emptyMemory(physicalAddress, size, protection, error);
    }
    auto* filledWith = size <= sizeof slot->page ? slot->page : new (std::nothrow) uint32_t[size / 4];
    void* memory = next::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || filledWith == nullptr) {
        error = ENOMEM;
        if (memory != MAP_FAILED) {
            next::munmap(memory, size);
        }
        letGo(*slot, filledWith);
        slot->address.store(0, std::memory_order_release);
        return MAP_FAILED;
    }
    runtime::get().readPage(physicalAddress, filledWith, size / 4);
    // Word by word: a race detector looks into memcpy, but can't see who has the slot.
    for (size_t i = 0; i < size / 4; ++i) {
        static_cast<volatile uint32_t*>(memory)[i] = filledWith[i];
    }
    if ((protection & PROT_WRITE) == 0) {
        mprotect(memory, size, protection);
    }
    slot->length.store(size, std::memory_order_relaxed);
    slot->physicalAddress = physicalAddress;
    slot->filledWith = filledWith;
    slot->stores = shared && (protection & PROT_WRITE) != 0;
    count_.fetch_add(1, std::memory_order_relaxed);
    slot->address.store(reinterpret_cast<uintptr_t>(memory), std::memory_order_release);
    return memory;
}

bool Mappings::end(void* address, size_t length, int& result) {
    if (count_.load(std::memory_order_relaxed) == 0) {
        return false;
    }
    const auto start = reinterpret_cast<uintptr_t>(address);
    for (Slot& slot : slots_) {
        uintptr_t at = slot.address.load(std::memory_order_acquire);
        const size_t size = slot.length.load(std::memory_order_relaxed);
        if (at <= 1 || start >= at + size || start + length <= at || slot.address.load() != at) {
            continue;
        }
        if (start != at || wholePages(length) != size) {
            result = -EINVAL;
            return true;
        }
        if (!slot.address.compare_exchange_strong(at, 1, std::memory_order_acquire)) {
            continue;
        }
        if (slot.stores) {
            const auto* after = static_cast<const uint32_t*>(address);
            const uint32_t* before = slot.filledWith;
            for (size_t i = 0; i < size / 4; ++i) {
                if (before[i] != after[i]) {
                    runtime::get().storeWord(slot.physicalAddress + i * 4, before[i], after[i]);
                }
            }
        }
        letGo(slot, slot.filledWith);
        result = next::munmap(address, size) == 0 ? 0 : -errno;
        count_.fetch_sub(1, std::memory_order_relaxed);
        slot.address.store(0, std::memory_order_release);
        return true;
    }
    return false;
}

}  // namespace kestrixsim
