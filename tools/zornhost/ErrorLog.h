#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <zorn/logger/logger.h>

#include "tools/zornhost/HealthFigures.h"

namespace zornhost {

// Counts the errors that the log gets while this lives, those with the same text but for its numbers together. Of more
// than fifty kinds the ones that were seen least recently are forgotten. Any thread.
class ErrorLog : public Harvane::RT::Core::ILogSink {
public:
    ErrorLog();
    ~ErrorLog() override;
    ErrorLog(const ErrorLog&) = delete;
    ErrorLog& operator=(const ErrorLog&) = delete;

    void write(const Harvane::RT::Core::LogRecord& record) override;
    // The latest first.
    std::vector<HealthFigures::Error> errors() const;

private:
    struct Kind {
        std::string key;
        HealthFigures::Error error;
    };
    mutable std::mutex mutex_;
    std::deque<Kind> kinds_;  // the latest first
};

}  // namespace zornhost
