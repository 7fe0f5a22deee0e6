#include "modules/daq/daqdevices/kestrix/src/SysfsFileReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "libraries/utils/DeviceFile.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq {

SysfsFileReader::SysfsFileReader(std::string path) : path_(std::move(path)) {}

std::optional<std::string> SysfsFileReader::read(std::string& failure) const {
    KESTRIX_LOG(1, "reading sysfs file {}", path_);
    const Utils::DeviceFile file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) {
        failure = "unable to open file " + path_ + " " + std::strerror(errno);
        return std::nullopt;
    }
    std::string text(63, '\0');
    const ssize_t count = ::read(file.get(), text.data(), text.size());
    if (count <= 0) {
        failure = "unable to read file " + path_ + " " + (count < 0 ? std::strerror(errno) : "it is empty");
        return std::nullopt;
    }
    text.resize(static_cast<size_t>(count));
    return text;
}

}  // namespace Harvane::RT::Modules::Daq
