#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

namespace Harvane::RT::Modules::Daq {

// What goes wrong with a channel's samples for one cause, counted in one run. Of each count the host gets a function
// that answers it, and the log is told when the count begins to grow and, with the sum, when samples flow without it;
// of one that comes and goes there are ten texts in ten minutes. The thread of the cycle counts and tells; any thread
// may ask.
class LossCount {
public:
    // A text is "SUBJECT BEFORE 12 GROWING" or "SUBJECT BEFORE 12 OVER".
    struct Words {
        const char* property;  // of the host channel
        const char* before;
        const char* growing;  // null: nothing is told
        const char* over;     // null: its end isn't told
    };

    // `words` is kept by address.
    LossCount(std::string subject, const Words& words) : subject_(std::move(subject)), words_(words) {}

    // A new run.
    void reset();
    void add(std::int64_t count) {
        count_.store(get() + count, std::memory_order_relaxed);
        grown_ = true;
    }
    std::int64_t get() const { return count_.load(std::memory_order_relaxed); }
    const char* property() const { return words_.property; }

    // After each pass; `flowed`: samples have been passed on in it.
    void endOfPass(bool flowed) {
        if (grown_ || growing_) {
            tell(flowed);
        }
    }

private:
    void tell(bool flowed);
    void log(const char* rest);

    const std::string subject_;
    const Words& words_;
    std::atomic<std::int64_t> count_{0};
    bool grown_ = false;    // in this pass
    bool growing_ = false;  // since the last pass that passed samples on without it
    std::int64_t told_ = 0;
    int texts_ = 0;  // since windowStart_
    std::chrono::steady_clock::time_point windowStart_{};
};

}  // namespace Harvane::RT::Modules::Daq
