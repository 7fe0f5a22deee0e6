#pragma once

#include "simulator/preload/FilePool.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// The timing driver's node, /dev/tolvn_timing. A blocking read waits for the next record.
class TimingFile : public ServedFile {
public:
    static int open(int flags, ServedFile*& file);

    ssize_t read(void* buffer, size_t size) override;
    short ready() override;

private:
    void recycle() override;
    static constinit FilePool<TimingFile> pool_;
};

}  // namespace kestrixsim
