#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <zorn/structure/module.h>

namespace Harvane::RT::Core {

// What the cycle has done since start(). Read by any thread.
struct CycleStatistics {
    uint64_t cycles = 0;         // completed
    uint64_t failures = 0;       // processData results that were failures
    uint64_t overruns = 0;       // periods skipped because a cycle took too long
    double longestCycleS = 0.0;  // time in processData
    double longestGapS = 0.0;    // from the start of one cycle to the start of the next
};

// One thread that calls processData of its modules at a fixed cycle time (monotonic clock, absolute deadlines; a late
// cycle skips whole periods and counts them). Holds the acquisition lock for the whole of each cycle. A failing result
// is logged (logger "Scheduler") and the cycle goes on. Readers of the rings on other threads: see sequence().
class ZORN_EXPORT Scheduler {
public:
    Scheduler(ObjectPtr<IAcquisitionSync> sync, long cycleTimeMs);
    ~Scheduler();  // stops
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    void addModule(const ObjectPtr<IModule>& module);     // not while running
    void removeModule(const ObjectPtr<IModule>& module);  // not while running
    // With a loop provider that cycles the host by itself: initializeLoop, startLoop instead of the own thread.
    void setLoopProvider(const ObjectPtr<ILoopProvider>& loop);
    void start();
    void stop();  // returns when no cycle runs any more
    bool isRunning() const;
    long cycleTimeMs() const;
    CycleStatistics statistics() const;

    // Odd while a cycle runs, even between two; grows by one at each edge. A reader that copies samples out of a ring
    // checks afterwards, once the number is even or has changed, that the writer has not come round to what it copied.
    uint64_t sequence() const;
    // Waits until no cycle that was running at the call runs any more; false after the time-out.
    bool waitForCycleEnd(int timeoutMs) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace Harvane::RT::Core
