#pragma once

#include "simulator/preload/FilePool.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// A raw socket on the instrument's CAN ports.
class CanSocketFile : public ServedFile {
public:
    // `type` with the flags of socket(2), which returns the descriptor.
    static int open(int type, int protocol);

    ssize_t read(void* buffer, size_t size) override;
    ssize_t write(const void* buffer, size_t size) override;
    int control(uint32_t request, uintptr_t argument) override;
    short ready() override;
    mode_t type() const override { return S_IFSOCK | 0777; }
    int waitFault() override;
    int flagsFault() override;
    int bind(const sockaddr* address, socklen_t length) override;
    int setOption(int level, int name, const void* value, socklen_t length) override;
    int getOption(int level, int name, void* value, socklen_t* length) override;

private:
    // Does what `attempt` does, again and again while it says -EAGAIN and the socket blocks.
    template <typename Attempt>
    ssize_t untilDone(Attempt&& attempt);

    int number() const { return number_.load(std::memory_order_relaxed); }
    void recycle() override;

    std::atomic<int> number_{0};
    static constinit FilePool<CanSocketFile> pool_;
};

}  // namespace kestrixsim
