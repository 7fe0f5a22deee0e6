#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <queue>
#include <vector>

#include "simulator/model/CanFrame.h"
#include "simulator/model/CanLog.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

// The virtual nodes of one bus: what they want to send, and since when. Times are nanoseconds of the instrument. What a
// node offers stays offered until it is sent. Not thread-safe.
class CanNodes {
public:
    static constexpr int64_t never = std::numeric_limits<int64_t>::max();

    struct Offer {
        enum class From { Cyclic, Log, Program };
        From from;
        size_t place;     // of the cyclic frame in its list
        uint64_t number;  // of the frame in its row
        CanFrame frame;
        int bits;
        uint32_t priority;
    };

    // Reads the recording. Throws ScenarioError.
    explicit CanNodes(const CanBusScenario& plan);

    void offer(const CanFrame& frame, int64_t at);  // from a program

    int64_t earliest() const;                  // since when somebody wants to send, `never` for nobody
    std::optional<Offer> first(int64_t time);  // who wins the bus at that time
    void sent(const Offer& offer);             // and it was the last one that first() gave

    // What comes by the table and the recording from `from` until `until` is gone without having been sent: calls
    // `each(frame, count)`. Roughly as many as the bus had let through, `bitrate` given. False while a program's
    // frames wait, which are not lost that way.
    template <typename Each>
    bool skip(int64_t from, int64_t until, uint32_t bitrate, Each&& each);

private:
    struct Cyclic {
        CanFrame frame;
        int bits;
        uint32_t priority;
        int64_t first;
        int64_t period;
        uint64_t count;
        bool counter;
        uint64_t next = 0;  // number of the frame that was not sent yet
        int64_t readySince() const;
        uint64_t latestAt(int64_t time) const;  // number of the frame that stands in its place; not before the first
    };
    struct Waiting {
        int64_t at;
        uint64_t number;
        CanFrame frame;
        uint32_t priority;
    };
    struct Later {
        bool operator()(const Waiting& one, const Waiting& other) const {
            return one.at != other.at ? one.at > other.at : one.number > other.number;
        }
    };
    struct Weaker {
        bool operator()(const Waiting& one, const Waiting& other) const {
            return one.priority != other.priority ? one.priority > other.priority : one.number > other.number;
        }
    };
    struct Skipped {
        const CanFrame* frame;
        uint64_t count;
        int bits;
    };

    int64_t logReady() const;
    void logNext();
    void passLog(int64_t until, std::vector<Skipped>& skipped);
    std::vector<Skipped> pass(int64_t until);  // the strongest first

    std::vector<Cyclic> cyclic_;
    std::vector<CanLog::Entry> log_;
    size_t logAt_ = 0;
    int64_t logStart_ = 0;
    bool logRepeats_ = false;
    std::priority_queue<Waiting, std::vector<Waiting>, Later> ahead_;   // not offered yet, by time
    std::priority_queue<Waiting, std::vector<Waiting>, Weaker> ready_;  // by strength
    uint64_t offered_ = 0;
};

template <typename Each>
bool CanNodes::skip(int64_t from, int64_t until, uint32_t bitrate, Each&& each) {
    if (!ready_.empty() || (!ahead_.empty() && ahead_.top().at <= until)) {
        return false;
    }
    double room = static_cast<double>(until - from) * 1e-9 * bitrate;  // in bits
    for (const Skipped& row : pass(until)) {
        const double bits = row.bits + CanFrame::gapBits;
        const auto count = std::min(row.count, static_cast<uint64_t>(std::max(room, 0.0) / bits));
        room -= static_cast<double>(count) * bits;
        each(*row.frame, count);
    }
    return true;
}

}  // namespace kestrixsim
