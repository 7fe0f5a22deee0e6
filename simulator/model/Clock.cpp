#include "simulator/model/Clock.h"

#include <chrono>
#include <utility>

namespace kestrixsim {

namespace {

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

Clock::Clock(double factor, std::function<double()> now)
    : now_(now ? std::move(now) : std::function<double()>(steadySeconds)),
      factor_(factor > 0.0 ? factor : 1.0),
      start_(now_()) {}

}  // namespace kestrixsim
