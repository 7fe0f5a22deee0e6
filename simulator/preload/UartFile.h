#pragma once

#include "simulator/preload/FilePool.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// /dev/ttyPS1, the amplifiers' port. Attributes belong to the port and outlive a close. VMIN and VTIME rule a read in
// non-canonical mode; in canonical mode a read waits for the first byte. What the attributes say of line ends, flow
// control and the eighth bit happens to the bytes. The firmware hears 38400 baud only: bytes written at another speed
// are taken and lost.
class UartFile : public ServedFile {
public:
    static int open(int flags, ServedFile*& file);

    ssize_t read(void* buffer, size_t size) override;
    ssize_t write(const void* buffer, size_t size) override;
    int control(uint32_t request, uintptr_t argument) override;
    short ready() override;
    bool isTerminal() const override { return true; }
    int getAttributes(termios& settings) override;
    int setAttributes(const termios& settings) override;
    int flush(int queue) override;

    // Attributes as after power-on. Under the runtime's lock.
    static void restorePort();

private:
    void recycle() override;
    static constinit FilePool<UartFile> pool_;
};

}  // namespace kestrixsim
