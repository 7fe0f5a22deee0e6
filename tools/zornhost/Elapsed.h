#pragma once

#include <chrono>

namespace zornhost {

// Seconds of the steady clock.
inline double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace zornhost
