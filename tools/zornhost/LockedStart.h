#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "tools/zornhost/ClockWatch.h"
#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// The way to a run whose clock is locked. Where the option in force follows a reference, the instrument has to see its
// pulses first: the frequency is pulled in, and the next start brings the phase, unless the wish for that has gone for
// a pulse; then it takes another start. What can't be had in time is started all the same, for the caller to judge.
class LockedStart {
public:
    // `watch`: null when nothing is known of the clock. `timeoutS`: of all waiting together, from now on; 0 starts at
    // once.
    LockedStart(Session& session, const ClockWatch* watch, Output& output, double timeoutS);

    // After the preparation. Returns when the clock is ready for a start, when the time is over or the user ends it.
    void awaitReference();
    // Starts, and once more when the clock has not come to its reference with it.
    void start();

private:
    using Clock = std::chrono::steady_clock;

    bool waitUntil(const std::function<bool()>& reached, const std::string& text, Clock::time_point until);
    bool waits() const;
    bool pulled() const;

    Session& session_;
    const ClockWatch* watch_;
    Output& output_;
    const double timeoutS_;
    const Clock::time_point begin_;
    const Clock::time_point end_;
};

}  // namespace zornhost
