#pragma once

#include "simulator/preload/FilePool.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// A stream's node, /dev/tolvn_dma_r%d or _f%d. read goes straight to the instrument with the caller's buffer.
class DmaFile : public ServedFile {
public:
    static int open(int module, Stream stream, int flags, ServedFile*& file);

    // Whether the board has a node for the module.
    static bool exists(int module);

    ssize_t read(void* buffer, size_t size) override;
    int control(uint32_t request, uintptr_t argument) override;

private:
    void recycle() override;
    static constinit FilePool<DmaFile> pool_;

    // Written while no descriptor leads here; atomic for a read that races with the close of its own descriptor.
    std::atomic<int> module_{0};
    std::atomic<Stream> stream_{Stream::Raw};
};

}  // namespace kestrixsim
