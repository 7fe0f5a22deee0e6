#pragma once

#include <linux/limits.h>

#include "simulator/preload/Doors.h"

namespace kestrixsim {

// Where a path that a program names really leads. Holds the rewritten text, so it lives on the caller's stack while
// the call that needs it runs.
class Location {
public:
    // A path that is not the instrument's costs a few comparisons and leaves errno alone. Makes the root folder if a
    // plain file of the instrument is asked for. Relative and null paths are never the instrument's.
    explicit Location(const char* path);

    DoorKind kind() const { return door_.kind; }
    int number() const { return door_.number; }

    bool ordinary() const { return door_.kind == DoorKind::Ordinary; }
    bool absent() const { return door_.kind == DoorKind::Absent; }
    bool socket() const { return door_.kind == DoorKind::Socket; }
    bool device() const { return !ordinary() && !absent() && !files(); }
    bool files() const { return door_.kind == DoorKind::Files || socket(); }

    // Whether a plain file or socket of the instrument is there.
    bool exists() const;

    // What to hand on: the path itself, or the one in the root folder. Not for devices and absent paths.
    const char* path() const { return path_; }

private:
    DoorFound door_;
    const char* path_;
    char buffer_[PATH_MAX];
};

}  // namespace kestrixsim
