#include "shared/libraries/kestrix/src/registers/ChannelFilterRegister.h"

#include <utility>

namespace Harvane::Shared::Kestrix {

ChannelFilterRegister::ChannelFilterRegister(std::shared_ptr<IRegisterAccess> access, uint64_t baseAddress,
                                             bool endianness)
    : FpgaRegisterDevice(baseAddress, endianness, false, std::move(access)) {}

}  // namespace Harvane::Shared::Kestrix
