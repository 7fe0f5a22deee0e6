#include "host/scheduler/FailureLog.h"

#include <fmt/format.h>

#include <zorn/types/values.h>

namespace Harvane::RT::Core {

namespace {

constexpr int ErrorLevel = 4;
constexpr int InfoLevel = 2;
constexpr std::chrono::seconds LineInterval(1);

}  // namespace

FailureLog::FailureLog() {
    if (failed(zornCreateLogger(SchedulerLoggerName, InfoLevel))) {
        zornClearErrorInfo();  // it exists already
    }
}

void FailureLog::reset() {
    pending_ = 0;
    wroteBefore_ = false;
    text_.clear();
}

void FailureLog::take(size_t module, ErrCode code) {
    ++pending_;
    module_ = module;
    code_ = code;
    text_ = takeErrorMessage();
    if (text_.empty()) {
        text_ = defaultErrorText(code);
    }
}

void FailureLog::write(TimePoint now) {
    if (pending_ == 0 || (wroteBefore_ && now - lastLine_ < LineInterval)) {
        return;
    }
    wroteBefore_ = true;
    lastLine_ = now;
    writeLine();
}

void FailureLog::finish() {
    if (pending_ != 0) {
        writeLine();
    }
}

void FailureLog::writeLine() {
    std::string line = fmt::format("processData of module {} failed: 0x{:08X}", module_, code_);
    if (!text_.empty()) {
        line += " " + text_;
    }
    if (pending_ > 1) {
        line += fmt::format(" ({} failures since the last message)", pending_);
    }
    pending_ = 0;
    zornLogMessageWithSource(SchedulerLoggerName, ErrorLevel, __FILE__, __LINE__, __func__, line.c_str());
}

}  // namespace Harvane::RT::Core
