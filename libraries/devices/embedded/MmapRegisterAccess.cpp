#include "libraries/devices/embedded/MmapRegisterAccess.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "libraries/devices/embedded/DeviceHandle.h"

namespace Harvane::ZornLib::Devices::Embedded {

MmapRegisterAccess::MmapRegisterAccess(const std::string& devicePath)
    // O_SYNC: a store reaches the hardware and not a cache line.
    : file_(openDeviceHandle(devicePath, O_RDWR | O_SYNC)) {}

template <typename Access>
void MmapRegisterAccess::accessWord(uint64_t address, Access access) {
    const std::lock_guard lock(sync_);
    if (!file_.isOpen()) {
        throw std::runtime_error("File is not opened.");
    }
    const auto pageSize = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    void* page = ::mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(),
                        static_cast<off_t>(address & ~(pageSize - 1)));
    if (page == MAP_FAILED) {
        throw std::runtime_error("Failed to map memory.");
    }
    // One access of the bus's width: the hardware sees neither a split nor a repeated one.
    access(reinterpret_cast<volatile uint32_t*>(static_cast<unsigned char*>(page) + (address & (pageSize - 1))));
    if (::munmap(page, pageSize) != 0) {
        throw std::runtime_error("Munmap failed.");
    }
}

void MmapRegisterAccess::write(uint64_t address, uint64_t offset, const unsigned char* data, size_t) {
    uint32_t word = 0;
    std::memcpy(&word, data, sizeof(word));
    accessWord(address + offset, [word](volatile uint32_t* place) { *place = word; });
}

void MmapRegisterAccess::read(uint64_t address, uint64_t offset, unsigned char* data, size_t) {
    uint32_t word = 0;
    accessWord(address + offset, [&word](volatile uint32_t* place) { word = *place; });
    std::memcpy(data, &word, sizeof(word));
}

std::recursive_mutex& MmapRegisterAccess::getSync() {
    return sync_;
}

}  // namespace Harvane::ZornLib::Devices::Embedded
