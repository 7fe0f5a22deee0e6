#pragma once

#include <optional>

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

// The sampling base clocks.
enum class ClockOption : unsigned char {
    Clock15MHz = 0,
    Clock10MHz = 1,
};

// Clock selection and lock state of the sampling PLLs. 32-bit word at 0xB0000000.
class PllControlRegister final : public FpgaRegisterDevice {
public:
    PllControlRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness);

    // clang-format off
    //               name              offset  bit bits type access
    KESTRIX_REGISTER(RSTSELRST,        0x0000, 29,  3, u8,   RW);
    KESTRIX_REGISTER(RES0,             0x0000, 28,  1, bool, R);
    KESTRIX_REGISTER(LCK0,             0x0000, 27,  1, bool, R);
    KESTRIX_REGISTER(RES1,             0x0000, 24,  3, u8,   R);
    KESTRIX_REGISTER(LCK1,             0x0000, 23,  1, bool, R);
    KESTRIX_REGISTER(RES2,             0x0000,  0, 23, u32,  R);
    // clang-format on

    // Waits until the request bit of RSTSELRST has gone, for at most 5 times 50 ms. A PLL that stays busy is no
    // failure.
    void waitForIdle();
    // Selects the clock and waits for the change. Lock loss is only logged.
    void setClock(ClockOption option);
    // What both PLLs have locked to; they get 5 times 50 ms for it. None when one of them doesn't lock, while a change
    // doesn't end, and for a selection that isn't one of the clocks.
    std::optional<ClockOption> lockedClock();
};

}  // namespace Harvane::Shared::Kestrix
