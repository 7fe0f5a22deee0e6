#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "simulator/model/Clock.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

// The faults in force. Every place that can fail asks here once for each access. Thread-safe; costs one atomic load
// while there are none.
class Faults {
public:
    explicit Faults(const Clock& clock);

    void add(const Fault& fault);
    void clear();

    // Whether this access is hit, and by what. `target` -1, `code` 0 and `command` 0 stand for accesses that have
    // none; a fault with target -1, code 0 or command 0 hits all of them.
    std::optional<Fault> hit(FaultKind kind, int target = -1, uint32_t code = 0, int command = 0);

    // The same for an access that happened at a time of its own, s of the instrument.
    std::optional<Fault> hitAt(double seconds, FaultKind kind, int target);

    // Whether an access would be hit now. It is none itself.
    bool due(FaultKind kind, int target) const;

    // Whether a fault of this kind exists, due or not, for the target.
    bool present(FaultKind kind, int target = -1) const;

private:
    struct Entry {
        Fault fault;
        uint64_t passed = 0;
        int64_t hits = 0;
    };

    std::optional<Fault> find(double now, FaultKind kind, int target, uint32_t code, int command);

    const Clock& clock_;
    std::atomic<bool> any_{false};
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
};

// What the open of a device answers that was hit or not: 0, -ENOENT, or the fault's code as a negative errno.
int openFault(const std::optional<Fault>& fault);

}  // namespace kestrixsim
