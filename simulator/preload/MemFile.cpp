#include "simulator/preload/MemFile.h"

#include <sys/mman.h>

#include <array>
#include <cstring>

#include "simulator/preload/Mappings.h"

namespace kestrixsim {

namespace {

constexpr size_t maxWords = 1024;  // of one pread or pwrite

// Whole words of a block, as 0 or a negative errno.
int checkPlace(size_t size, off_t offset) {
    if (offset < 0 || offset % 4 != 0 || size == 0 || size % 4 != 0 || size > maxWords * 4) {
        return -EINVAL;
    }
    return runtime::get().hasBlock(static_cast<uint64_t>(offset), size) ? 0 : -EFAULT;
}

}  // namespace

constinit FilePool<MemFile> MemFile::pool_;

int MemFile::open(int, ServedFile*& file) {
    const int result = runtime::get().memOpen();
    if (result == 0) {
        file = &pool_.take();
    }
    return result;
}

ssize_t MemFile::readAt(void* buffer, size_t size, off_t offset) {
    if (const int error = checkPlace(size, offset); error != 0) {
        return error;
    }
    std::array<uint32_t, maxWords> words;
    runtime::get().readPage(static_cast<uint64_t>(offset), words.data(), size / 4);
    std::memcpy(buffer, words.data(), size);
    return static_cast<ssize_t>(size);
}

ssize_t MemFile::writeAt(const void* buffer, size_t size, off_t offset) {
    if (const int error = checkPlace(size, offset); error != 0) {
        return error;
    }
    std::array<uint32_t, maxWords> words;
    std::memcpy(words.data(), buffer, size);
    for (size_t i = 0; i < size / 4; ++i) {
        const uint64_t address = static_cast<uint64_t>(offset) + i * 4;
        uint32_t before = 0;
        runtime::get().readPage(address, &before, 1);
        runtime::get().storeWord(address, before, words[i]);
    }
    return static_cast<ssize_t>(size);
}

void* MemFile::map(void*, size_t length, int protection, int flags, off_t offset, int& error) {
    error = 0;
    if ((flags & MAP_FIXED) != 0 || length == 0 || offset < 0) {
        error = EINVAL;
    } else if (!readable() || ((protection & PROT_WRITE) != 0 && (flags & MAP_SHARED) != 0 && !writable())) {
        error = EACCES;
    } else {
        error = -runtime::get().memMap(static_cast<uint64_t>(offset));
    }
    if (error != 0) {
        return MAP_FAILED;
    }
    return Mappings::make(static_cast<uint64_t>(offset), length, protection, (flags & MAP_SHARED) != 0, error);
}

void MemFile::recycle() {
    pool_.giveBack(*this);
}

}  // namespace kestrixsim
