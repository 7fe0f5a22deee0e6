#include "simulator/preload/Paths.h"

#include <unistd.h>

#include <cstring>
#include <string_view>

#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Runtime.h"

namespace kestrixsim {

namespace {

// Takes out "//", "/./" and "/../" by the text alone. False if it does not fit.
bool flatten(std::string_view path, char* out, size_t size) {
    size_t length = 0;
    while (!path.empty()) {
        path.remove_prefix(1);  // the slash
        const std::string_view part = path.substr(0, path.find('/'));
        path.remove_prefix(part.size());
        if (part.empty() || part == ".") {
            continue;
        }
        if (part == "..") {
            while (length > 0 && out[--length] != '/') {
            }
            continue;
        }
        if (length + part.size() + 2 > size) {
            return false;
        }
        out[length++] = '/';
        std::memcpy(out + length, part.data(), part.size());
        length += part.size();
    }
    if (length == 0) {
        out[length++] = '/';
    }
    out[length] = '\0';
    return true;
}

}  // namespace

bool Location::exists() const {
    return next::access(path_, F_OK) == 0;
}

Location::Location(const char* path) : path_(path) {
    if (path == nullptr || path[0] != '/' || Entry::inside()) {
        return;
    }
    std::string_view flat = path;
    if (flat.find("//") != flat.npos || flat.find("/.") != flat.npos || (flat.size() > 1 && flat.back() == '/')) {
        if (!flatten(flat, buffer_, sizeof buffer_)) {
            return;
        }
        flat = buffer_;
    }
    door_ = findDoor(flat);
    if (!files()) {
        return;
    }
    const std::string* root = runtime::root();
    if (root == nullptr || root->size() + flat.size() + 1 > sizeof buffer_) {
        door_.kind = DoorKind::Absent;
        return;
    }
    std::memmove(buffer_ + root->size(), flat.data(), flat.size());
    // Byte by byte: what publishes the root folder is out of a thread sanitizer's sight, which looks into memcpy.
    for (size_t i = 0; i < root->size(); ++i) {
        buffer_[i] = static_cast<const volatile char&>((*root)[i]);
    }
    buffer_[root->size() + flat.size()] = '\0';
    path_ = buffer_;
}

}  // namespace kestrixsim
