#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kestrixsim {

// Pages of physical memory that are mapped now. A page is filled from the instrument when it is made; when it is
// unmapped, every word that differs from what it was filled with is a store. (A store that changes nothing stays
// unseen.) No lock: a register access makes and ends one of these.
class Mappings {
public:
    static constexpr size_t limit = 64;  // at one time
    static constexpr size_t pageWords = 1024;

    // MAP_FAILED and `error` if it cannot be made. Where no register block lies, an access ends in SIGBUS.
    static void* make(uint64_t physicalAddress, size_t length, int protection, bool shared, int& error);

    // False if the range has nothing to do with our mappings. Otherwise `result` is that of munmap, 0 or a negative
    // errno: only a whole mapping can be given back.
    static bool end(void* address, size_t length, int& result);

private:
    // `address` is 0 for a free slot and 1 for one that a thread is working on.
    struct Slot {
        std::atomic<uintptr_t> address{0};
        std::atomic<size_t> length{0};  // whole pages
        uint64_t physicalAddress = 0;
        uint32_t* filledWith = nullptr;  // of `length`: `page`, or of the heap where that is too small
        uint32_t page[pageWords] = {};   // a program that takes nothing from the heap doesn't by mapping a page either
        bool stores = false;
    };
    static void letGo(const Slot& slot, const uint32_t* filledWith);

    static constinit Slot slots_[limit];
    static constinit std::atomic<int> count_;
};

}  // namespace kestrixsim
