#pragma once

#include <string>

#include "libraries/devices/embedded/IRegisterAccess.h"
#include "libraries/utils/DeviceFile.h"

namespace Harvane::ZornLib::Devices::Embedded {

// Physical memory through a device such as /dev/mem. Each access maps the page it needs, does exactly one 32-bit load
// or store, and unmaps: `size` is not used and `data` always has four bytes. The address must be a multiple of 4.
class MmapRegisterAccess : public IRegisterAccess {
public:
    // Throws "Failed to open device handle.".
    explicit MmapRegisterAccess(const std::string& devicePath);

    void write(uint64_t address, uint64_t offset, const unsigned char* data, size_t size) override;
    void read(uint64_t address, uint64_t offset, unsigned char* data, size_t size) override;
    std::recursive_mutex& getSync() override;

private:
    template <typename Access>
    void accessWord(uint64_t address, Access access);

    std::recursive_mutex sync_;
    Utils::DeviceFile file_;
};

}  // namespace Harvane::ZornLib::Devices::Embedded
