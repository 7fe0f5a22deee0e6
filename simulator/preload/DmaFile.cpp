#include "simulator/preload/DmaFile.h"

#include <time.h>

#include <algorithm>
#include <cerrno>

#include "simulator/preload/NextFunctions.h"

namespace kestrixsim {

constinit FilePool<DmaFile> DmaFile::pool_;

int DmaFile::open(int module, Stream stream, int, ServedFile*& file) {
    if (!exists(module)) {
        return -ENOENT;
    }
    const int result = runtime::get().dmaOpen(module, stream);
    if (result == 0) {
        DmaFile& made = pool_.take();
        made.module_.store(module, std::memory_order_relaxed);
        made.stream_.store(stream, std::memory_order_relaxed);
        file = &made;
    }
    return result;
}

bool DmaFile::exists(int module) {
    // The driver makes nodes for the slots of the board. Nonsense in the EEPROM does not make more of them than fit.
    const Scenario& scenario = runtime::get().scenario();
    return module < std::min(scenario.slots, scenario.boardType == 1 ? 2 : 8);
}

ssize_t DmaFile::read(void* buffer, size_t size) {
    const int module = module_.load(std::memory_order_relaxed);
    const Stream stream = stream_.load(std::memory_order_relaxed);
    for (;;) {
        const ssize_t count = runtime::get().dmaRead(module, stream, buffer, size);
        if (count != -EAGAIN || nonBlocking()) {
            return count;
        }
        const timespec pause{0, 1'000'000};
        if (const int error = next::clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr)) {
            return -error;
        }
    }
}

int DmaFile::control(uint32_t request, uintptr_t argument) {
    return runtime::get().dmaIoctl(module_.load(std::memory_order_relaxed), stream_.load(std::memory_order_relaxed),
                                   request, argument);
}

void DmaFile::recycle() {
    pool_.giveBack(*this);
}

}  // namespace kestrixsim
