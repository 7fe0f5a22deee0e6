#pragma once

#include <string>

namespace Harvane::Utils::Threading {

// Told of an exception that would otherwise have left a thread. Called on the thread that failed; it must not throw
// (what it throws is dropped) and must outlive the thread.
class ThreadExceptionAdapter {
public:
    virtual ~ThreadExceptionAdapter() = default;
    virtual void handleException(const std::string& text) = 0;
};

}  // namespace Harvane::Utils::Threading
