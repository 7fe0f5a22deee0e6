#include "shared/libraries/kestrix/src/registers/PllControlRegister.h"

#include <chrono>
#include <thread>
#include <utility>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::Shared::Kestrix {

PllControlRegister::PllControlRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness)
    : FpgaRegisterDevice(baseAddress, endianness, false, std::move(access)) {}

// RSTSELRST: the lowest bit starts a change and stays set while it runs, the two above it select the clock.

void PllControlRegister::waitForIdle() {
    constexpr unsigned int busy = 1;
    for (int remaining = 5; (RSTSELRST.read() & busy) != 0 && remaining > 0;) {
        --remaining;
        KESTRIX_LOG(4, "Waiting for idle PLL (Remaining retry: {})", remaining);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

void PllControlRegister::setClock(ClockOption option) {
    waitForIdle();
    RSTSELRST.write(static_cast<unsigned char>(((static_cast<unsigned int>(option) & 0x7F) << 1) | 1));
    waitForIdle();
    KESTRIX_LOG(2, "PLL set: control: {}, pll0LockStatus: {}, pll1LockStatus: {}", RSTSELRST.read(), LCK0.read(),
                LCK1.read());
}

}  // namespace Harvane::Shared::Kestrix
