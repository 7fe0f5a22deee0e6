#pragma once

#include <time.h>

#include <cstdint>

#include "simulator/model/Instrument.h"

// The computer's clocks as programs on the instrument see them. With a time factor all of them run by it, and what a
// program waits for is as much shorter; otherwise only the real-time clock may differ, by its start and its steps. The
// monotonic clock never goes back, whatever instrument replaces another.
namespace kestrixsim::servedtime {

inline constexpr int64_t second = 1'000'000'000;

// Steady seconds of the machine: the source of an instrument's time.
double machineSeconds();

// From now on, for the instrument that is made at this moment. `scaled`: by the scenario's factor.
void adopt(const Scenario& scenario, bool scaled);

// The machine's nanoseconds in those of a program, 1 unless scaled.
double factor();
// A program's wait as the machine has to wait.
int64_t toMachine(int64_t nanoseconds);

// As the call, for a program.
int get(clockid_t clock, timespec* time);
// What programs were shown as real time when the instrument was `seconds` old, ns since 1970; that was not long ago.
int64_t realtimeAt(const Instrument& instrument, double seconds);
// What is left until a deadline on a program's clock, in the machine's nanoseconds; 0 when it has passed.
int64_t leftUntil(clockid_t clock, const timespec& deadline);

inline int64_t nanoseconds(const timespec& time) {
    return time.tv_sec * second + time.tv_nsec;
}
inline timespec asTime(int64_t nanoseconds) {
    return {nanoseconds / second, nanoseconds % second};
}

}  // namespace kestrixsim::servedtime
