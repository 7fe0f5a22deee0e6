#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

namespace Harvane::ZornLib::Devices::Embedded {

// Moves bytes to and from an address of one bus. Every failure is a std::runtime_error. Thread-safe: the mutex of
// getSync is held for the whole of each access.
class IRegisterAccess {
public:
    // `address` is the base address of a block or the slave on a bus, `offset` the place within; `size` in bytes.
    virtual void write(uint64_t address, uint64_t offset, const unsigned char* data, size_t size) = 0;
    virtual void read(uint64_t address, uint64_t offset, unsigned char* data, size_t size) = 0;
    // For callers that need a sequence of accesses undisturbed, such as two bit fields of one word.
    virtual std::recursive_mutex& getSync() = 0;
    virtual ~IRegisterAccess() = default;
};

}  // namespace Harvane::ZornLib::Devices::Embedded
