#include "shared/libraries/kestrix/src/registers/VcxoDriverRegister.h"

#include <utility>

namespace Harvane::Shared::Kestrix {

VcxoDriverRegister::VcxoDriverRegister(std::shared_ptr<IRegisterAccess> access, uint64_t slaveAddress, bool endianness)
    : RegisterBlock(slaveAddress, endianness, false, std::move(access)) {}

}  // namespace Harvane::Shared::Kestrix
