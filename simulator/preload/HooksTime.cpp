// Clocks and timed waits. Everything goes on as it is until an instrument serves clocks of its own.

#include <pthread.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/ServedTime.h"

using namespace kestrixsim;

namespace {

bool scaled() {
    return servedtime::factor() != 1.0 && !Entry::inside();
}

bool valid(const timespec* time) {
    return time != nullptr && time->tv_sec >= 0 && time->tv_nsec >= 0 && time->tv_nsec < servedtime::second;
}

// As clock_nanosleep; the wait is relative to now.
int sleepFor(int64_t nanoseconds, timespec* left) {
    const timespec wait = servedtime::asTime(servedtime::toMachine(nanoseconds));
    timespec rest{};
    const int result = next::clock_nanosleep(CLOCK_MONOTONIC, 0, &wait, &rest);
    if (result == EINTR && left != nullptr) {
        *left = servedtime::asTime(
            static_cast<int64_t>(static_cast<double>(servedtime::nanoseconds(rest)) * servedtime::factor()));
    }
    return result;
}

int asCall(int error) {
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

int waitUntil(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) {
    timespec end{};
    next::clock_gettime(CLOCK_MONOTONIC, &end);
    end = servedtime::asTime(servedtime::nanoseconds(end) + servedtime::leftUntil(clock, *deadline));
    return next::condClockwait(condition, mutex, CLOCK_MONOTONIC, &end);
}

}  // namespace

KESTRIX_HOOK(int, clock_gettime, (clockid_t clock, timespec* time)) {
    return servedtime::get(clock, time);
}

KESTRIX_HOOK(int, gettimeofday, (timeval * time, void* zone)) {
    timespec now{};
    if (time == nullptr || zone != nullptr || servedtime::get(CLOCK_REALTIME, &now) != 0) {
        return next::gettimeofday(time, zone);
    }
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

KESTRIX_HOOK(time_t, time, (time_t * seconds)) {
    timespec now{};
    if (servedtime::get(CLOCK_REALTIME, &now) != 0) {
        return next::time(seconds);
    }
    if (seconds != nullptr) {
        *seconds = now.tv_sec;
    }
    return now.tv_sec;
}

KESTRIX_HOOK(int, clock_nanosleep, (clockid_t clock, int flags, const timespec* wait, timespec* left)) {
    if (!scaled() || !valid(wait)) {
        return next::clock_nanosleep(clock, flags, wait, left);
    }
    if ((flags & TIMER_ABSTIME) != 0) {
        const timespec rest = servedtime::asTime(servedtime::leftUntil(clock, *wait));
        return next::clock_nanosleep(CLOCK_MONOTONIC, 0, &rest, nullptr);
    }
    return sleepFor(servedtime::nanoseconds(*wait), left);
}

KESTRIX_HOOK(int, nanosleep, (const timespec* wait, timespec* left)) {
    if (!scaled() || !valid(wait)) {
        return asCall(next::clock_nanosleep(CLOCK_MONOTONIC, 0, wait, left));
    }
    return asCall(sleepFor(servedtime::nanoseconds(*wait), left));
}

KESTRIX_HOOK(int, usleep, (useconds_t microseconds)) {
    return asCall(sleepFor(static_cast<int64_t>(microseconds) * 1000, nullptr));
}

KESTRIX_HOOK(unsigned, sleep, (unsigned seconds)) {
    timespec left{};
    const int result = sleepFor(static_cast<int64_t>(seconds) * servedtime::second, &left);
    return result == EINTR ? static_cast<unsigned>(left.tv_sec + (left.tv_nsec != 0 ? 1 : 0)) : 0;
}

// Of a condition variable whose clock is the real-time or the monotonic one: the deadline is told by the caller alone.
// A deadline that lies nearer to the monotonic clock's present than to the other's is one of that clock.
KESTRIX_HOOK(int, pthread_cond_timedwait,
             (pthread_cond_t * condition, pthread_mutex_t* mutex, const timespec* deadline)) {
    if (!scaled() || !valid(deadline)) {
        return next::condTimedwait(condition, mutex, deadline);
    }
    timespec real{};
    timespec steady{};
    servedtime::get(CLOCK_REALTIME, &real);
    servedtime::get(CLOCK_MONOTONIC, &steady);
    const int64_t end = servedtime::nanoseconds(*deadline);
    const auto away = [end](const timespec& now) {
        const int64_t by = end - servedtime::nanoseconds(now);
        return by < 0 ? -by : by;
    };
    return waitUntil(condition, mutex, away(steady) < away(real) ? CLOCK_MONOTONIC : CLOCK_REALTIME, deadline);
}

KESTRIX_HOOK(int, pthread_cond_clockwait,
             (pthread_cond_t * condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline)) {
    if (!scaled() || !valid(deadline)) {
        return next::condClockwait(condition, mutex, clock, deadline);
    }
    return waitUntil(condition, mutex, clock, deadline);
}
