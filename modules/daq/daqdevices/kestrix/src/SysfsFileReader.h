#pragma once

#include <optional>
#include <string>

namespace Harvane::RT::Modules::Daq {

// One attribute file of the kernel.
class SysfsFileReader {
public:
    explicit SysfsFileReader(std::string path);

    // One open, one read of 63 bytes at most, one close. Nothing when one of them fails or there is nothing to read;
    // `failure` then says why. Otherwise leaves it alone.
    std::optional<std::string> read(std::string& failure) const;
    const std::string& path() const { return path_; }

private:
    const std::string path_;
};

}  // namespace Harvane::RT::Modules::Daq
