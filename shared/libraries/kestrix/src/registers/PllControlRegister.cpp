#include "shared/libraries/kestrix/src/registers/PllControlRegister.h"

#include <chrono>
#include <thread>
#include <utility>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::Shared::Kestrix {

PllControlRegister::PllControlRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness)
    : FpgaRegisterDevice(baseAddress, endianness, false, std::move(access)) {}

namespace {

// RSTSELRST: the lowest bit starts a change and stays set while it runs, the two above it select the clock.
constexpr unsigned int busy = 1;

constexpr int waits = 5;
constexpr auto wait = std::chrono::milliseconds(50);

}  // namespace

void PllControlRegister::waitForIdle() {
    for (int remaining = waits; (RSTSELRST.read() & busy) != 0 && remaining > 0;) {
        --remaining;
        KESTRIX_LOG(4, "Waiting for idle PLL (Remaining retry: {})", remaining);
        std::this_thread::sleep_for(wait);
    }
}

std::optional<ClockOption> PllControlRegister::lockedClock() {
    waitForIdle();
    const unsigned int control = RSTSELRST.read();
    const auto option = static_cast<ClockOption>(control >> 1);
    if ((control & busy) != 0 || (option != ClockOption::Clock15MHz && option != ClockOption::Clock10MHz)) {
        return std::nullopt;
    }
    for (int remaining = waits; !LCK0.read() || !LCK1.read(); --remaining) {
        if (remaining == 0) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(wait);
    }
    return option;
}

void PllControlRegister::setClock(ClockOption option) {
    waitForIdle();
    RSTSELRST.write(static_cast<unsigned char>(((static_cast<unsigned int>(option) & 0x7F) << 1) | 1));
    waitForIdle();
    KESTRIX_LOG(2, "PLL set: control: {}, pll0LockStatus: {}, pll1LockStatus: {}", RSTSELRST.read(), LCK0.read(),
                LCK1.read());
}

}  // namespace Harvane::Shared::Kestrix
