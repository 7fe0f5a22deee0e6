#pragma once

#include <string>

#include "libraries/devices/embedded/IRegisterAccess.h"
#include "libraries/utils/DeviceFile.h"

namespace Harvane::ZornLib::Devices::Embedded {

// A character device that is read and written as a file; address and offset have no meaning here. A transfer that
// moves fewer bytes than asked for fails.
class FileRegisterAccess : public IRegisterAccess {
public:
    // Throws "Failed to open device handle.".
    explicit FileRegisterAccess(const std::string& devicePath);

    void write(uint64_t address, uint64_t offset, const unsigned char* data, size_t size) override;
    void read(uint64_t address, uint64_t offset, unsigned char* data, size_t size) override;
    std::recursive_mutex& getSync() override;

protected:
    int getFileDescriptor() const;

private:
    std::recursive_mutex sync_;
    Utils::DeviceFile file_;
};

}  // namespace Harvane::ZornLib::Devices::Embedded
