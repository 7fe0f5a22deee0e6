#pragma once

#include "simulator/preload/Runtime.h"
#include "simulator/preload/ServedFile.h"

namespace kestrixsim {

// Open files of one kind that are not in use. Both operations take the runtime's lock.
template <typename F>
class FilePool {
public:
    // A file with one reference. Its state is that of its last use: the caller sets it.
    F& take() {
        ServedFile* file = nullptr;
        {
            const std::scoped_lock guard(runtime::lock());
            file = free_;
            if (file != nullptr) {
                free_ = file->nextFree_;
            }
        }
        if (file == nullptr) {
            file = new F;
        }
        file->references_.store(1, std::memory_order_release);
        return static_cast<F&>(*file);
    }

    void giveBack(F& file) {
        const std::scoped_lock guard(runtime::lock());
        file.nextFree_ = free_;
        free_ = &file;
    }

private:
    ServedFile* free_ = nullptr;
};

}  // namespace kestrixsim
