#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kestrixsim {

// What changed in the hardware, one line a change, in order: what a test can see of the order of steps that go through
// different doors. Thread-safe. Nothing is noted for what flows by itself, so that it stays short.
class Journal {
public:
    void note(std::string line) {
        const std::lock_guard lock(mutex_);
        lines_.push_back(std::move(line));
    }
    std::vector<std::string> lines() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace kestrixsim
