#include "simulator/preload/SensorFile.h"

#include <fcntl.h>
#include <stdio.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Runtime.h"

namespace kestrixsim {

namespace {

// The instrument's own name of a plain file; empty if it is no sensor's or nothing is there.
std::string_view sensorPath(const Location& location) {
    const std::string* root = location.files() && !location.socket() ? runtime::root() : nullptr;
    if (root == nullptr) {
        return {};
    }
    const std::string_view path(location.path());
    if (path.size() <= root->size() || !Instrument::ownsSensor(path.substr(root->size())) || !location.exists()) {
        return {};
    }
    return path.substr(root->size());
}

// Whole at once: somebody may be reading it.
int replace(const char* path, const std::string& text) {
    static constinit std::atomic<unsigned> made{0};
    const std::string fresh = *runtime::root() + "/sensor." + std::to_string(made++);
    const int fd = next::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -errno;
    }
    const bool written = next::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    next::close(fd);
    return written && ::rename(fresh.c_str(), path) == 0 ? 0 : -EIO;
}

}  // namespace

int SensorFile::refresh(const Location& location) {
    const std::string_view path = sensorPath(location);
    if (path.empty()) {
        return 0;
    }
    const Entry entry;
    try {
        std::optional<std::string> text;
        const int error = runtime::get().sensorOpen(path, text);
        return error != 0 || !text ? error : replace(location.path(), *text);
    } catch (const std::exception&) {
        return -EIO;
    }
}

int SensorFile::check(const Location& location, bool permission) {
    const std::string_view path = sensorPath(location);
    if (path.empty()) {
        return 0;
    }
    const Entry entry;
    const int error = runtime::get().sensorAccess(path);
    return error == -EACCES && !permission ? 0 : error;
}

}  // namespace kestrixsim
