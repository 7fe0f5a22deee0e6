#pragma once

#include <zorn/logger/logger.h>

#include <mutex>
#include <string>
#include <vector>

#include "shared/libraries/kestrix/src/KestrixLogger.h"

namespace kestrixtest {

// Everything that the hardware layer logs while it lives, as "5 text" with the hardware layer's level.
class LogCapture : public Harvane::RT::Core::ILogSink {
public:
    explicit LogCapture(int level = 1) {
        using namespace Harvane::RT::Core;
        zornCreateLogger("kestrix", 0);
        ILogger* logger = nullptr;
        zornGetLogger("kestrix", &logger);
        logger->setLevel(0);
        logger->releaseRef();
        addLogSink(this, 0);
        Harvane::Shared::Kestrix::KestrixLogger::get_logger().setLevel(level);
    }
    ~LogCapture() override { Harvane::RT::Core::removeLogSink(this); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    void write(const Harvane::RT::Core::LogRecord& record) override {
        if (std::string(record.logger) != "kestrix")
            return;
        const std::lock_guard lock(mutex_);
        lines_.push_back(std::to_string(record.level + 1) + " " + record.message);
    }

    // Lines from this level on, without those of the multiplexer's selections.
    std::vector<std::string> lines(int level = 1) const {
        const std::lock_guard lock(mutex_);
        std::vector<std::string> result;
        for (const std::string& line : lines_)
            if (line[0] - '0' >= level && line.find("selecting channel") == std::string::npos &&
                line.find("opening i2c") == std::string::npos)
                result.push_back(line);
        return result;
    }

    std::vector<std::string> all() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace kestrixtest
