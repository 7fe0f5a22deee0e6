#pragma once

#include "simulator/preload/FilePool.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// /dev/mem. pread and pwrite take whole aligned words; mmap goes through Mappings.
class MemFile : public ServedFile {
public:
    static int open(int flags, ServedFile*& file);

    ssize_t readAt(void* buffer, size_t size, off_t offset) override;
    ssize_t writeAt(const void* buffer, size_t size, off_t offset) override;
    void* map(void* address, size_t length, int protection, int flags, off_t offset, int& error) override;

private:
    void recycle() override;
    static constinit FilePool<MemFile> pool_;
};

}  // namespace kestrixsim
