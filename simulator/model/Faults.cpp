#include "simulator/model/Faults.h"

#include <algorithm>
#include <cerrno>

namespace kestrixsim {

namespace {

// The kinds in which `code` tells which accesses are meant; in the others it says how they fail.
bool codeSelects(FaultKind kind) {
    return kind == FaultKind::DmaIoctl || kind == FaultKind::MuxReadsBack || kind == FaultKind::MemMap;
}

bool lasts(const Fault& fault, double now) {
    return now >= fault.atSeconds && (fault.untilSeconds <= 0.0 || now < fault.untilSeconds);
}

}  // namespace

Faults::Faults(const Clock& clock) : clock_(clock) {}

void Faults::add(const Fault& fault) {
    const std::lock_guard lock(mutex_);
    Entry entry{fault};
    if (fault.kind == FaultKind::MuxReadsBack && fault.code == 0) {
        entry.fault.code = 0x4D;
    }
    entries_.push_back(entry);
    any_ = true;
}

void Faults::clear() {
    const std::lock_guard lock(mutex_);
    entries_.clear();
    any_ = false;
}

std::optional<Fault> Faults::hit(FaultKind kind, int target, uint32_t code, int command) {
    return any_ ? find(clock_.seconds(), kind, target, code, command) : std::nullopt;
}

std::optional<Fault> Faults::hitAt(double seconds, FaultKind kind, int target) {
    return any_ ? find(seconds, kind, target, 0, 0) : std::nullopt;
}

std::optional<Fault> Faults::find(double now, FaultKind kind, int target, uint32_t code, int command) {
    const std::lock_guard lock(mutex_);
    for (Entry& entry : entries_) {
        const Fault& fault = entry.fault;
        if (fault.kind != kind || (fault.target != -1 && target != -1 && fault.target != target)) {
            continue;
        }
        if (codeSelects(kind) && fault.code != 0 && static_cast<uint32_t>(fault.code) != code) {
            continue;
        }
        if (fault.command != 0 && fault.command != command) {
            continue;
        }
        if (!lasts(fault, now)) {
            continue;
        }
        if (entry.passed < fault.afterCount) {
            ++entry.passed;
            continue;
        }
        if (fault.times >= 0 && entry.hits >= fault.times) {
            continue;
        }
        ++entry.hits;
        return fault;
    }
    return std::nullopt;
}

bool Faults::due(FaultKind kind, int target) const {
    if (!any_) {
        return false;
    }
    const double now = clock_.seconds();
    const std::lock_guard lock(mutex_);
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) {
        const Fault& fault = entry.fault;
        return fault.kind == kind && (fault.target == -1 || fault.target == target) && lasts(fault, now) &&
               entry.passed >= fault.afterCount && (fault.times < 0 || entry.hits < fault.times);
    });
}

bool Faults::present(FaultKind kind, int target) const {
    if (!any_) {
        return false;
    }
    const std::lock_guard lock(mutex_);
    for (const Entry& entry : entries_) {
        if (entry.fault.kind == kind && (entry.fault.target == -1 || target == -1 || entry.fault.target == target)) {
            return true;
        }
    }
    return false;
}

int openFault(const std::optional<Fault>& fault) {
    return !fault ? 0 : fault->code != 0 ? -fault->code : -ENOENT;
}

}  // namespace kestrixsim
