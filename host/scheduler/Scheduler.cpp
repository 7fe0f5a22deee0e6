#include <zorn/scheduler/scheduler.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <pthread.h>

#include <zorn/types/callable.h>

#include "host/scheduler/FailureLog.h"

namespace Harvane::RT::Core {

namespace {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::nanoseconds;

// Orders the sequence number against the samples on both sides. (g++'s thread sanitizer knows no fences.)
void sequenceFence() {
#ifndef __SANITIZE_THREAD__
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

void raise(std::atomic<int64_t>& longest, int64_t value) {
    // One writer, so that a plain comparison will do.
    if (value > longest.load(std::memory_order_relaxed)) {
        longest.store(value, std::memory_order_relaxed);
    }
}

// What one cycle does and what it counts. Shared with the procedure that a loop provider may keep beyond stop().
class Cycle {
public:
    explicit Cycle(ObjectPtr<IAcquisitionSync> sync) : sync_(std::move(sync)) {}

    void begin() {
        cycles = failures = overruns = 0;
        longestCycleNs = longestGapNs = 0;
        lastStart_ = {};
        failureLog_.reset();
        std::lock_guard lock(loopMutex_);
        running_ = true;
    }

    // No cycle runs and none begins after this.
    void end() {
        std::lock_guard lock(loopMutex_);
        running_ = false;
        failureLog_.finish();
    }

    void run() {
        const ErrCode locked = sync_->lock();
        if (failed(locked)) {
            failures.fetch_add(1, std::memory_order_relaxed);
            failureLog_.report(0, locked, Clock::now());
            return;
        }
        sequence.fetch_add(1, std::memory_order_acquire);
        sequenceFence();  // the odd number is seen before anything that the cycle writes

        const auto start = Clock::now();
        if (lastStart_ != Clock::time_point()) {
            raise(longestGapNs, (start - lastStart_).count());
        }
        lastStart_ = start;
        for (size_t i = 0; i < modules.size(); ++i) {
            zornClearErrorInfo();  // what an earlier cycle left is no reason of this one
            const ErrCode code = modules[i]->processData();
            if (failed(code)) {
                failures.fetch_add(1, std::memory_order_relaxed);
                failureLog_.take(i, code);
            }
        }
        const auto end = Clock::now();
        raise(longestCycleNs, (end - start).count());
        cycles.fetch_add(1, std::memory_order_relaxed);

        sequence.fetch_add(1, std::memory_order_release);
        sync_->unlock();
        failureLog_.write(end);  // behind the lock: nobody waits for a log line
    }

    // A cycle that somebody else times.
    void runFromLoop() {
        std::lock_guard lock(loopMutex_);
        if (running_) {
            run();
        }
    }

    std::vector<ObjectPtr<IModule>> modules;
    std::atomic<uint64_t> cycles{0};
    std::atomic<uint64_t> failures{0};
    std::atomic<uint64_t> overruns{0};
    std::atomic<int64_t> longestCycleNs{0};
    std::atomic<int64_t> longestGapNs{0};
    std::atomic<uint64_t> sequence{0};

private:
    const ObjectPtr<IAcquisitionSync> sync_;
    Clock::time_point lastStart_;
    FailureLog failureLog_;
    std::mutex loopMutex_;
    bool running_ = false;
};

}  // namespace

struct Scheduler::State {
    explicit State(ObjectPtr<IAcquisitionSync> sync) : cycle(std::make_shared<Cycle>(std::move(sync))) {}

    void requireStopped(const char* what) const {
        if (running.load()) {
            throw InvalidStateException("%s while the scheduler runs", what);
        }
    }

    void threadBody() {
        pthread_setname_np(pthread_self(), "zorn-cycle");
        const Nanoseconds period = std::chrono::milliseconds(cycleTimeMs);
        auto deadline = Clock::now() + period;
        std::unique_lock lock(stopMutex);
        while (!stopCondition.wait_until(lock, deadline, [this] { return stopWanted; })) {
            lock.unlock();
            cycle->run();
            deadline += period;
            const auto now = Clock::now();
            if (now > deadline) {
                // Too late for this period: stay on the grid of the start instead of catching up in a burst.
                const auto missed = (now - deadline) / period + 1;
                cycle->overruns.fetch_add(static_cast<uint64_t>(missed), std::memory_order_relaxed);
                deadline += missed * period;
            }
            lock.lock();
        }
    }

    const std::shared_ptr<Cycle> cycle;
    ObjectPtr<ILoopProvider> loop;
    ObjectPtr<ILoopProvider> activeLoop;  // the one that was started
    long cycleTimeMs = 0;
    std::atomic<bool> running{false};
    std::thread thread;
    std::mutex stopMutex;
    std::condition_variable stopCondition;
    bool stopWanted = false;
};

Scheduler::Scheduler(ObjectPtr<IAcquisitionSync> sync, long cycleTimeMs) {
    if (!sync) {
        throw InvalidParameterException("A scheduler needs an acquisition lock");
    }
    if (cycleTimeMs < 1) {
        throw InvalidParameterException("A cycle time of %ld ms is not possible: 1 ms is the least", cycleTimeMs);
    }
    state_ = std::make_unique<State>(std::move(sync));
    state_->cycleTimeMs = cycleTimeMs;
}

Scheduler::~Scheduler() {
    try {
        stop();
    } catch (const std::exception& exception) {
        zornLogMessageWithSource(SchedulerLoggerName, 4, __FILE__, __LINE__, __func__, exception.what());
    }
}

void Scheduler::addModule(const ObjectPtr<IModule>& module) {
    state_->requireStopped("Can't add a module");
    if (!module) {
        throw InvalidParameterException("No module to add");
    }
    state_->cycle->modules.push_back(module);
}

void Scheduler::removeModule(const ObjectPtr<IModule>& module) {
    state_->requireStopped("Can't remove a module");
    std::erase(state_->cycle->modules, module);
}

void Scheduler::setLoopProvider(const ObjectPtr<ILoopProvider>& loop) {
    state_->requireStopped("Can't change the loop provider");
    state_->loop = loop;
}

void Scheduler::start() {
    state_->requireStopped("Can't start");
    state_->cycle->begin();
    if (state_->loop) {
        // A failing provider leaves the scheduler stopped.
        try {
            checkErrorInfo(state_->loop->initializeLoop());
            auto body = [cycle = state_->cycle](const BasePtr&) -> ErrCode {
                cycle->runFromLoop();
                return Errors::Success;
            };
            checkErrorInfo(state_->loop->startLoop(makeProc(std::move(body)).get(), nullptr));
        } catch (...) {
            state_->cycle->end();
            throw;
        }
        state_->activeLoop = state_->loop;
    } else {
        state_->stopWanted = false;
        try {
            state_->thread = std::thread([state = state_.get()] { state->threadBody(); });
        } catch (...) {
            state_->cycle->end();
            throw;
        }
    }
    state_->running = true;
}

void Scheduler::stop() {
    if (!state_->running.load()) {
        return;
    }
    ErrCode code = Errors::Success;
    if (state_->activeLoop) {
        code = state_->activeLoop->stopLoop();
        state_->activeLoop.release();
    } else {
        {
            std::lock_guard lock(state_->stopMutex);
            state_->stopWanted = true;
        }
        state_->stopCondition.notify_all();
        state_->thread.join();
    }
    state_->cycle->end();
    state_->running = false;
    checkErrorInfo(code);
}

bool Scheduler::isRunning() const {
    return state_->running.load();
}

long Scheduler::cycleTimeMs() const {
    return state_->cycleTimeMs;
}

CycleStatistics Scheduler::statistics() const {
    const auto& cycle = *state_->cycle;
    CycleStatistics result;
    result.cycles = cycle.cycles.load(std::memory_order_relaxed);
    result.failures = cycle.failures.load(std::memory_order_relaxed);
    result.overruns = cycle.overruns.load(std::memory_order_relaxed);
    result.longestCycleS = static_cast<double>(cycle.longestCycleNs.load(std::memory_order_relaxed)) * 1e-9;
    result.longestGapS = static_cast<double>(cycle.longestGapNs.load(std::memory_order_relaxed)) * 1e-9;
    return result;
}

uint64_t Scheduler::sequence() const {
    sequenceFence();
    return state_->cycle->sequence.load(std::memory_order_acquire);
}

bool Scheduler::waitForCycleEnd(int timeoutMs) const {
    // What the caller has read comes before the next cycle, which may write there.
    const uint64_t seen = state_->cycle->sequence.fetch_add(0, std::memory_order_acq_rel);
    if (seen % 2 == 0) {
        return true;
    }
    // Asked at short intervals, so that the cycle has nobody to wake.
    const auto until = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (sequence() == seen) {
        if (Clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

ZORN_FUNCTION void zornSchedulerGetVersion(unsigned int* major, unsigned int* minor, unsigned int* patch) {
    if (major != nullptr) {
        *major = 1;
    }
    if (minor != nullptr) {
        *minor = 0;
    }
    if (patch != nullptr) {
        *patch = 0;
    }
}

}  // namespace Harvane::RT::Core
