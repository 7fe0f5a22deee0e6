#pragma once

#include <array>

#include "shared/libraries/kestrix/src/registers/RegisterMap.h"

namespace Harvane::Shared::Kestrix {

#define KESTRIX_COEFFICIENT(tap, offset)                    \
    KESTRIX_REGISTER(C##tap##COEF, offset, 5, 27, u32, RW); \
    KESTRIX_REGISTER(C##tap##RES, offset, 0, 5, u8, R)

// Half-band filter of one module: its symmetric impulse response as 27-bit signed coefficients, named by tap number:
// the taps at odd distance from the centre and, last, the centre tap. 32-bit words from offset 0x0000 of the module's
// block, see RegistersAddress::dspBaseAddress.
class ChannelFilterRegister final : public FpgaRegisterDevice {
public:
    ChannelFilterRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress, bool endianness);

    // Word n holds the coefficient CnCOEF and the reserved bits CnRES.
    //                 tap offset
    // clang-format off
    KESTRIX_COEFFICIENT(1,  0x0000);
    KESTRIX_COEFFICIENT(3,  0x0004);
    KESTRIX_COEFFICIENT(5,  0x0008);
    KESTRIX_COEFFICIENT(7,  0x000c);
    KESTRIX_COEFFICIENT(9,  0x0010);
    KESTRIX_COEFFICIENT(11, 0x0014);
    KESTRIX_COEFFICIENT(13, 0x0018);
    KESTRIX_COEFFICIENT(15, 0x001c);
    KESTRIX_COEFFICIENT(17, 0x0020);
    KESTRIX_COEFFICIENT(19, 0x0024);
    KESTRIX_COEFFICIENT(21, 0x0028);
    KESTRIX_COEFFICIENT(23, 0x002c);
    KESTRIX_COEFFICIENT(25, 0x0030);
    KESTRIX_COEFFICIENT(27, 0x0034);
    KESTRIX_COEFFICIENT(29, 0x0038);
    KESTRIX_COEFFICIENT(31, 0x003c);
    KESTRIX_COEFFICIENT(33, 0x0040);
    KESTRIX_COEFFICIENT(35, 0x0044);
    KESTRIX_COEFFICIENT(37, 0x0048);
    KESTRIX_COEFFICIENT(39, 0x004c);
    KESTRIX_COEFFICIENT(41, 0x0050);
    KESTRIX_COEFFICIENT(43, 0x0054);
    KESTRIX_COEFFICIENT(45, 0x0058);
    KESTRIX_COEFFICIENT(47, 0x005c);
    KESTRIX_COEFFICIENT(49, 0x0060);
    KESTRIX_COEFFICIENT(51, 0x0064);
    KESTRIX_COEFFICIENT(53, 0x0068);
    KESTRIX_COEFFICIENT(55, 0x006c);
    KESTRIX_COEFFICIENT(57, 0x0070);
    KESTRIX_COEFFICIENT(59, 0x0074);
    KESTRIX_COEFFICIENT(61, 0x0078);
    KESTRIX_COEFFICIENT(63, 0x007c);
    KESTRIX_COEFFICIENT(64, 0x0080);

    //               name              offset  bit bits type access
    KESTRIX_REGISTER(FLTTYPE,          0x0090, 31,  1, bool, RW);
    KESTRIX_REGISTER(FLTTYPERES,       0x0090,  0, 31, u32,  R);
    // clang-format on

    // The coefficients in ascending order of the tap number, as they are written.
    std::array<RegisterValue<unsigned int>*, 33> coefficients{
        &C1COEF,  &C3COEF,  &C5COEF,  &C7COEF,  &C9COEF,  &C11COEF, &C13COEF, &C15COEF, &C17COEF, &C19COEF, &C21COEF,
        &C23COEF, &C25COEF, &C27COEF, &C29COEF, &C31COEF, &C33COEF, &C35COEF, &C37COEF, &C39COEF, &C41COEF, &C43COEF,
        &C45COEF, &C47COEF, &C49COEF, &C51COEF, &C53COEF, &C55COEF, &C57COEF, &C59COEF, &C61COEF, &C63COEF, &C64COEF};
};

#undef KESTRIX_COEFFICIENT

}  // namespace Harvane::Shared::Kestrix
