#pragma once

#include <zorn/logger/logger.h>

#include <mutex>
#include <string>

// Everything that is logged while it lives.
class LogCapture : public Harvane::RT::Core::ILogSink {
public:
    LogCapture() { Harvane::RT::Core::addLogSink(this, 0); }
    ~LogCapture() override { Harvane::RT::Core::removeLogSink(this); }
    void write(const Harvane::RT::Core::LogRecord& record) override {
        const std::lock_guard lock(mutex_);
        text_ += std::string(record.message) + "\n";
    }
    std::string text() const {
        const std::lock_guard lock(mutex_);
        return text_;
    }
    size_t count(const std::string& words) const {
        const std::string all = text();
        size_t found = 0;
        for (size_t at = all.find(words); at != std::string::npos; at = all.find(words, at + 1)) {
            ++found;
        }
        return found;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
};
