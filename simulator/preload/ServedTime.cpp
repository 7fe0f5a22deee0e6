#include "simulator/preload/ServedTime.h"

#include <algorithm>
#include <atomic>

#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Runtime.h"

namespace kestrixsim::servedtime {

namespace {

// Never freed: another thread may be in the middle of a conversion.
struct Settings {
    bool scaled;
    bool ownRealtime;
    double factor;
    int64_t served;   // what the monotonic clock showed
    int64_t machine;  // when the machine's was here
    const Settings* former;
};
constinit std::atomic<const Settings*> current{nullptr};

int64_t machineNow() {
    timespec time{};
    next::clock_gettime(CLOCK_MONOTONIC, &time);
    return nanoseconds(time);
}

bool isMonotonic(clockid_t clock) {
    return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_BOOTTIME;
}

bool isRealtime(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

int64_t monotonic(const Settings& settings, int64_t machine) {
    return settings.served + static_cast<int64_t>(static_cast<double>(machine - settings.machine) * settings.factor);
}

}  // namespace

double machineSeconds() {
    return static_cast<double>(machineNow()) * 1e-9;
}

void adopt(const Scenario& scenario, bool scaled) {
    const Settings* former = current.load();
    const bool scales = scaled && scenario.timeFactor != 1.0;
    const bool own = scales || scenario.realtimeAtStart > 0.0;
    const int64_t machine = machineNow();
    const int64_t served = former != nullptr ? monotonic(*former, machine) : machine;
    current.store(new Settings{scales, own, scales ? scenario.timeFactor : 1.0, served, machine, former});
}

double factor() {
    const Settings* settings = current.load(std::memory_order_acquire);
    return settings != nullptr ? settings->factor : 1.0;
}

int64_t toMachine(int64_t nanoseconds) {
    const double by = factor();
    return by == 1.0 ? nanoseconds : static_cast<int64_t>(static_cast<double>(nanoseconds) / by);
}

int get(clockid_t clock, timespec* time) {
    const Settings* settings = current.load(std::memory_order_acquire);
    if (settings == nullptr || time == nullptr || Entry::inside()) {
        return next::clock_gettime(clock, time);
    }
    if (isMonotonic(clock)) {
        const int result = next::clock_gettime(clock, time);
        if (result == 0 && (settings->scaled || settings->served != settings->machine)) {
            *time = asTime(monotonic(*settings, machineNow()));
        }
        return result;
    }
    Instrument* instrument = isRealtime(clock) ? runtime::existing() : nullptr;
    if (instrument == nullptr) {
        return next::clock_gettime(clock, time);
    }
    const Entry entry;
    if (settings->ownRealtime) {
        *time = asTime(instrument->realtime());
        return 0;
    }
    const int result = next::clock_gettime(clock, time);
    if (result == 0) {
        *time = asTime(nanoseconds(*time) + instrument->realtimeSteps());
    }
    return result;
}

int64_t realtimeAt(const Instrument& instrument, double seconds) {
    const Settings* settings = current.load(std::memory_order_acquire);
    if (settings != nullptr && settings->ownRealtime) {
        return instrument.realtimeAt(seconds);
    }
    // The machine's clock, as it was then: the less goes by between the two looks, the better.
    int64_t shown = 0;
    int64_t narrowest = second;
    for (int attempt = 0; attempt < 3 && narrowest > 5'000; ++attempt) {
        timespec time{};
        const int64_t before = machineNow();
        next::clock_gettime(CLOCK_REALTIME, &time);
        const double age = instrument.seconds() - seconds;
        const int64_t took = machineNow() - before;
        if (took < narrowest) {
            narrowest = took;
            shown = nanoseconds(time) - static_cast<int64_t>(age / instrument.scenario().timeFactor * 1e9);
        }
    }
    return shown + instrument.realtimeStepsAt(seconds);
}

int64_t leftUntil(clockid_t clock, const timespec& deadline) {
    timespec now{};
    get(clock, &now);
    // An end that is farther away than a year is as good as one.
    constexpr int64_t longest = 31'536'000 * second;
    const int64_t end =
        deadline.tv_sec > longest / second + now.tv_sec ? nanoseconds(now) + longest : nanoseconds(deadline);
    return toMachine(std::clamp<int64_t>(end - nanoseconds(now), 0, longest));
}

}  // namespace kestrixsim::servedtime
