#pragma once

#include <zorn/logger/logger.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace kestrixtest {

// Everything that the hardware layer logs while it lives, as "5 text" with the hardware layer's level; from then on as
// much as before.
class LogCapture : public Harvane::RT::Core::ILogSink {
public:
    explicit LogCapture(int level = 1) {
        setHostLevel(0);
        Harvane::RT::Core::addLogSink(this, 0);
        Harvane::Shared::Kestrix::KestrixLogger::get_logger().setLevel(level);
    }
    ~LogCapture() override {
        Harvane::RT::Core::removeLogSink(this);
        setHostLevel(4);
        Harvane::Shared::Kestrix::KestrixLogger::get_logger().setLevel(before_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // What the host lets pass, one below the hardware layer's level.
    static void setHostLevel(int level) {
        using namespace Harvane::RT::Core;
        zornCreateLogger("kestrix", level);
        ILogger* logger = nullptr;
        zornGetLogger("kestrix", &logger);
        logger->setLevel(level);
        logger->releaseRef();
    }

    void write(const Harvane::RT::Core::LogRecord& record) override {
        if (std::string(record.logger) != "kestrix") {
            return;
        }
        const std::lock_guard lock(mutex_);
        lines_.push_back(std::to_string(record.level + 1) + " " + record.message);
    }

    std::vector<std::string> all() const {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

    // Lines with these words in them.
    std::ptrdiff_t count(const std::string& words) const {
        const auto all = this->all();
        return std::count_if(all.begin(), all.end(),
                             [&](const std::string& line) { return line.find(words) != line.npos; });
    }

    // Without those of the multiplexer's selections.
    std::vector<std::string> lines() const {
        std::vector<std::string> result = all();
        std::erase_if(result, [](const std::string& line) { return line.find("selecting channel") != line.npos; });
        return result;
    }

private:
    const int before_ = Harvane::Shared::Kestrix::KestrixLogger::get_logger().getLevel();
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace kestrixtest
