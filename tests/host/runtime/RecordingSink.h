#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <zorn/logger/logger.h>

namespace Harvane::RT::Core {

// Keeps what was logged, of one logger or of all.
class RecordingSink final : public ILogSink {
public:
    struct Line {
        int level;
        std::string message;
    };

    explicit RecordingSink(std::string logger = {}, int minimumLevel = 0) : logger_(std::move(logger)) {
        addLogSink(this, minimumLevel);
    }
    ~RecordingSink() override { removeLogSink(this); }

    void write(const LogRecord& record) override {
        if (!logger_.empty() && logger_ != record.logger) {
            return;
        }
        std::lock_guard lock(mutex_);
        lines_.push_back({record.level, record.message});
    }

    std::vector<std::string> messages() const {
        std::vector<std::string> result;
        for (const auto& line : lines()) {
            result.push_back(line.message);
        }
        return result;
    }
    // Messages with these words in them.
    std::ptrdiff_t count(const std::string& words) const {
        return std::ranges::count_if(messages(),
                                     [&](const std::string& message) { return message.find(words) != message.npos; });
    }
    std::vector<Line> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    const std::string logger_;
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace Harvane::RT::Core
