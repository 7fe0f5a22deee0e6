#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Harvane::Utils {

// What to say about something that is tried again and again: that it fails, that it fails for another reason, that it
// works again, each with the failures up to then. Never each failure. Of a fault that comes and goes, or that never
// says the same twice, there are ten texts in ten minutes; the first one after them tells how things stand then. One
// thread at a time.
class FaultReport {
public:
    using Clock = std::chrono::steady_clock;

    // `subject` begins every text: "callback failed: no such register", "callback works again after 3 failures".
    explicit FaultReport(const std::string& subject);
    // In one's own words: `failing` stands in front of a reason, `subject` in front of "works again".
    FaultReport(std::string failing, std::string subject);

    // After each try; `failure` says why it failed and is empty when it worked. Returns the text, empty for none.
    std::string after(const std::string& failure, Clock::time_point now);
    // Whether the last text told of a failure. While it didn't, a try that worked has nothing to tell.
    bool isFailing() const { return !told_.empty(); }

private:
    bool mayTell(Clock::time_point now);

    const std::string failing_;
    const std::string subject_;
    std::string told_;  // the failure that was told last; empty: that it works
    uint64_t failures_ = 0;
    Clock::time_point windowStart_{};
    int toldInWindow_ = 0;
};

}  // namespace Harvane::Utils
