#pragma once

#include <chrono>
#include <thread>

namespace Harvane::RT::Core::Testing {

// Waits for a condition; false when it has not come true within ten seconds.
template <class Condition>
bool eventually(Condition&& condition) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace Harvane::RT::Core::Testing
