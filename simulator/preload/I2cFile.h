#pragma once

#include "simulator/preload/FilePool.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// /dev/i2c-1. Every open file has a slave of its own.
class I2cFile : public ServedFile {
public:
    static int open(int flags, ServedFile*& file);

    ssize_t read(void* buffer, size_t size) override;
    ssize_t write(const void* buffer, size_t size) override;
    int control(uint32_t request, uintptr_t argument) override;

private:
    void recycle() override;
    static constinit FilePool<I2cFile> pool_;

    std::atomic<int> slave_{0};
};

}  // namespace kestrixsim
