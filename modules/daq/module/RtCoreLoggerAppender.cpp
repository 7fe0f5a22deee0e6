#include "modules/daq/module/RtCoreLoggerAppender.h"

#include <utility>

#include <fmt/format.h>

#include <zorn/logger/logger.h>

namespace Harvane::RT::Modules::Daq {

RtCoreLoggerAppender::RtCoreLoggerAppender(std::string loggerName) : loggerName_(std::move(loggerName)) {}

void RtCoreLoggerAppender::write(const plog::Record& record) {
    // plog leaves the parameters out; without the result type the bare name is left.
    std::string function = record.getFunc();
    if (const size_t blank = function.rfind(' '); blank != std::string::npos) {
        function.erase(0, blank + 1);
    }
    const int line = static_cast<int>(record.getLine());
    const std::string text = fmt::format("[{}:{}] {}", function, line, record.getMessage());
    // plog counts down from fatal (1) to verbose (6), the host up from verbose (0) to fatal (5).
    const int level = 6 - static_cast<int>(record.getSeverity());
    Core::zornLogMessageWithSource(loggerName_.c_str(), level, "", line, function.c_str(), text.c_str());
}

}  // namespace Harvane::RT::Modules::Daq
