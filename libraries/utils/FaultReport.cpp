#include "libraries/utils/FaultReport.h"

#include <utility>

namespace Harvane::Utils {

namespace {

constexpr auto window = std::chrono::minutes(10);
constexpr int textsInWindow = 10;

std::string failures(uint64_t count) {
    return std::to_string(count) + (count == 1 ? " failure" : " failures");
}

}  // namespace

FaultReport::FaultReport(const std::string& subject) : FaultReport(subject + " failed: ", subject) {}

FaultReport::FaultReport(std::string failing, std::string subject)
    : failing_(std::move(failing)), subject_(std::move(subject)) {}

std::string FaultReport::after(const std::string& failure, Clock::time_point now) {
    if (!failure.empty()) {
        ++failures_;
    }
    if (failure == told_ || !mayTell(now)) {
        return {};
    }
    told_ = failure;
    if (failure.empty()) {
        return subject_ + " works again after " + failures(std::exchange(failures_, 0));
    }
    std::string text = failing_ + failure;
    if (failures_ > 1) {
        text += " (" + failures(failures_) + " so far)";
    }
    return text;
}

bool FaultReport::mayTell(Clock::time_point now) {
    if (toldInWindow_ == 0 || now - windowStart_ >= window) {
        windowStart_ = now;
        toldInWindow_ = 0;
    }
    if (toldInWindow_ == textsInWindow) {
        return false;
    }
    ++toldInWindow_;
    return true;
}

}  // namespace Harvane::Utils
