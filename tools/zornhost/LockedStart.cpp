#include "tools/zornhost/LockedStart.h"

#include <fmt/format.h>

#include "tools/zornhost/Elapsed.h"
#include "tools/zornhost/Interrupt.h"

namespace zornhost {

namespace {

constexpr int stepMs = 50;
constexpr uint64_t pulsesToJudge = 2;  // after a start: the first may still be the one of before
constexpr auto judgeTime = std::chrono::milliseconds(3500);

}  // namespace

LockedStart::LockedStart(Session& session, const ClockWatch* watch, Output& output, double timeoutS)
    : session_(session),
      watch_(watch),
      output_(output),
      timeoutS_(timeoutS),
      begin_(Clock::now()),
      end_(begin_ + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutS))) {}

// False when the time was over first, or the user has ended it.
bool LockedStart::waitUntil(const std::function<bool()>& reached, const std::string& text, Clock::time_point until) {
    double nextTextS = 1.0;
    while (!reached()) {
        if (Clock::now() >= until || Interrupt::sleepMs(stepMs)) {
            return false;
        }
        const double waitedS = secondsSince(begin_);
        if (waitedS >= nextTextS) {
            const std::string obstacle = watch_->report().obstacle();
            output_.progress(fmt::format("clock: {} ({:.0f} of {:.0f} s){}{}", text, waitedS, timeoutS_,
                                         obstacle.empty() ? "" : ": ", obstacle));
            nextTextS = waitedS + (output_.progressIsTerminal() ? 0.5 : 10.0);
        }
    }
    return true;
}

bool LockedStart::waits() const {
    return watch_ != nullptr && timeoutS_ > 0.0 && !watch_->report().followsNothing();
}

// The frequency is the reference's. An error beside it is the wish for the start that brings the phase.
bool LockedStart::pulled() const {
    const ClockReport report = watch_->report();
    return report.tracking && report.last.pulse > 0;
}

void LockedStart::awaitReference() {
    if (waits()) {
        waitUntil([this] { return pulled(); }, "waits for its reference", end_);
        output_.endProgress();
    }
}

void LockedStart::start() {
    session_.start();
    if (!waits()) {
        return;
    }
    while (!Interrupt::requested()) {
        const uint64_t before = watch_->report().last.pulse;
        waitUntil([&] { return watch_->report().last.pulse >= before + pulsesToJudge; }, "looks at its first pulses",
                  Clock::now() + judgeTime);
        if (watch_->report().lock == Lock::Locked || Clock::now() >= end_) {
            break;
        }
        if (!waitUntil([this] { return pulled(); }, "waits for its reference", end_) ||
            watch_->report().lock == Lock::Locked) {
            break;
        }
        session_.stop();
        session_.prepare();
        session_.start();
    }
    output_.endProgress();
}

}  // namespace zornhost
