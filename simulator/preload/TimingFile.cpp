#include "simulator/preload/TimingFile.h"

#include <poll.h>
#include <time.h>

#include <cerrno>

#include "simulator/preload/NextFunctions.h"

namespace kestrixsim {

constinit FilePool<TimingFile> TimingFile::pool_;

int TimingFile::open(int, ServedFile*& file) {
    const int result = runtime::get().timingOpen();
    if (result == 0) {
        file = &pool_.take();
    }
    return result;
}

ssize_t TimingFile::read(void* buffer, size_t size) {
    for (;;) {
        const ssize_t count = runtime::get().timingRead(static_cast<uint8_t*>(buffer), size);
        if (count != -EAGAIN || nonBlocking()) {
            return count;
        }
        const timespec pause{0, 1'000'000};
        if (const int error = next::clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr)) {
            return -error;
        }
    }
}

short TimingFile::ready() {
    return runtime::get().timingReady() ? POLLIN | POLLRDNORM : 0;
}

void TimingFile::recycle() {
    pool_.giveBack(*this);
}

}  // namespace kestrixsim
