#include "simulator/model/CanNodes.h"

#include <algorithm>
#include <cmath>

namespace kestrixsim {

namespace {

constexpr int64_t millisecond = 1'000'000;

int64_t nanoseconds(double seconds) {
    return static_cast<int64_t>(std::llround(seconds * 1e9));
}

}  // namespace

CanNodes::CanNodes(const CanBusScenario& plan)
    : logStart_(nanoseconds(plan.log.atSeconds)), logRepeats_(plan.log.repeat) {
    for (const CanCyclicScenario& row : plan.cyclic) {
        cyclic_.push_back({row.frame, row.frame.bits(), row.frame.priority(), nanoseconds(row.firstSeconds),
                           std::max<int64_t>(nanoseconds(row.periodSeconds), 1), row.count, row.counter});
    }
    if (!plan.log.file.empty()) {
        log_ = CanLog::read(plan.log.file, plan.log.interface);
    }
}

void CanNodes::offer(const CanFrame& frame, int64_t at) {
    ahead_.push({at, offered_++, frame, frame.priority()});
}

int64_t CanNodes::Cyclic::readySince() const {
    return count != 0 && next >= count ? never : first + static_cast<int64_t>(next) * period;
}

uint64_t CanNodes::Cyclic::latestAt(int64_t time) const {
    const auto latest = static_cast<uint64_t>((time - first) / period);
    return count != 0 ? std::min(latest, count - 1) : latest;
}

int64_t CanNodes::logReady() const {
    return logAt_ < log_.size() ? logStart_ + log_[logAt_].nanoseconds : never;
}

void CanNodes::logNext() {
    if (++logAt_ == log_.size() && logRepeats_) {
        logStart_ += log_.back().nanoseconds + millisecond;
        logAt_ = 0;
    }
}

int64_t CanNodes::earliest() const {
    int64_t result = logReady();
    for (const Cyclic& row : cyclic_) {
        result = std::min(result, row.readySince());
    }
    if (!ready_.empty()) {
        return std::min<int64_t>(result, 0);  // since long ago
    }
    return ahead_.empty() ? result : std::min(result, ahead_.top().at);
}

std::optional<CanNodes::Offer> CanNodes::first(int64_t time) {
    for (; !ahead_.empty() && ahead_.top().at <= time; ahead_.pop()) {
        ready_.push(ahead_.top());
    }
    std::optional<Offer> best;
    for (size_t i = 0; i < cyclic_.size(); ++i) {
        const Cyclic& row = cyclic_[i];
        if (row.readySince() <= time && (!best || row.priority < best->priority)) {
            best = Offer{Offer::From::Cyclic, i, row.latestAt(time), row.frame, row.bits, row.priority};
        }
    }
    if (logReady() <= time) {
        const CanFrame& frame = log_[logAt_].frame;
        if (const uint32_t priority = frame.priority(); !best || priority < best->priority) {
            best = Offer{Offer::From::Log, 0, logAt_, frame, frame.bits(), priority};
        }
    }
    if (!ready_.empty() && (!best || ready_.top().priority < best->priority)) {
        const Waiting& top = ready_.top();
        best = Offer{Offer::From::Program, 0, top.number, top.frame, top.frame.bits(), top.priority};
    }
    if (best && best->from == Offer::From::Cyclic && cyclic_[best->place].counter) {
        for (size_t i = 0; i < 4; ++i) {
            best->frame.data[i] = static_cast<uint8_t>(best->number >> 8 * i);
        }
        best->bits = best->frame.bits();
    }
    return best;
}

void CanNodes::sent(const Offer& offer) {
    switch (offer.from) {
        case Offer::From::Cyclic:
            cyclic_[offer.place].next = offer.number + 1;
            break;
        case Offer::From::Log:
            logNext();
            break;
        case Offer::From::Program:
            ready_.pop();
            break;
    }
}

std::vector<CanNodes::Skipped> CanNodes::pass(int64_t until) {
    std::vector<Skipped> skipped;
    for (Cyclic& row : cyclic_) {
        if (row.readySince() <= until) {
            const uint64_t next = row.latestAt(until) + 1;
            skipped.push_back({&row.frame, next - row.next, row.bits});
            row.next = next;
        }
    }
    if (!log_.empty()) {
        passLog(until, skipped);
    }
    std::stable_sort(skipped.begin(), skipped.end(), [](const Skipped& one, const Skipped& other) {
        return one.frame->priority() < other.frame->priority();
    });
    return skipped;
}

void CanNodes::passLog(int64_t until, std::vector<Skipped>& skipped) {
    const int64_t length = log_.back().nanoseconds + millisecond;
    if (const int64_t rounds = logRepeats_ && until > logStart_ ? (until - logStart_) / length : 0; rounds > 0) {
        for (size_t i = 0; i < log_.size(); ++i) {
            const auto count = static_cast<uint64_t>(rounds) - (i < logAt_ ? 1 : 0);
            skipped.push_back({&log_[i].frame, count, log_[i].frame.bits()});
        }
        logStart_ += rounds * length;
        logAt_ = 0;
    }
    for (; logReady() <= until; logNext()) {
        skipped.push_back({&log_[logAt_].frame, 1, log_[logAt_].frame.bits()});
    }
}

}  // namespace kestrixsim
