#include "libraries/utils/Timer.h"

namespace Harvane::Utils::Synchronization {

Timer::Timer() : startTime_(std::chrono::system_clock::now()) {}

void Timer::reset() {
    startTime_ = std::chrono::system_clock::now();
}

double Timer::elapsed() const {
    return std::chrono::duration<double>(std::chrono::system_clock::now() - startTime_).count();
}

double Timer::elapsedMs() const {
    return elapsed() * 1000.0;
}

}  // namespace Harvane::Utils::Synchronization
