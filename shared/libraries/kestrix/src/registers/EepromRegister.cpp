#include "shared/libraries/kestrix/src/registers/EepromRegister.h"

#include <utility>

namespace Harvane::Shared::Kestrix {

EepromRegister::EepromRegister(std::shared_ptr<IRegisterAccess> access, uint64_t slaveAddress)
    : RegisterBlock(slaveAddress, false, false, std::move(access)) {
    setWriteDelay(10);
}

}  // namespace Harvane::Shared::Kestrix
