#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

#include <zorn/logger/logger.h>

namespace Harvane::Shared::Kestrix {

namespace {

constexpr const char* loggerName = "kestrix";
constexpr int levelUnknown = 0;
constexpr int levelOff = 7;
constexpr int hostLevelOfNewLogger = 2;

int fetchLevel() {
    RT::Core::ILogger* logger = nullptr;
    RT::Core::ErrCode result = RT::Core::zornGetLogger(loggerName, &logger);
    if (result == RT::Core::Errors::NotFound) {
        // Another thread may create it at the same time: what counts is whether it is there afterwards.
        RT::Core::zornCreateLogger(loggerName, hostLevelOfNewLogger);
        result = RT::Core::zornGetLogger(loggerName, &logger);
        // The failed look-up is nobody's failure: its text must not turn up in a later one.
        RT::Core::zornClearErrorInfo();
    }
    if (RT::Core::failed(result) || !logger) {
        return levelOff;
    }
    int hostLevel = 0;
    result = logger->getLevel(&hostLevel);
    logger->releaseRef();
    // One above the host's, which starts at 0: here 0 means that the level is not known.
    return RT::Core::failed(result) ? levelOff : hostLevel + 1;
}

}  // namespace

KestrixLogger& KestrixLogger::get_logger() {
    static KestrixLogger logger;
    return logger;
}

void KestrixLogger::setLevel(int level) {
    level_.store(level, std::memory_order_relaxed);
}

void KestrixLogger::log(int level, const char* file, int line, const char* function, const std::string& message) {
    int threshold = getLevel();
    if (threshold == levelUnknown) {
        int fetched = fetchLevel();
        // A level that was set meanwhile stands.
        threshold = level_.compare_exchange_strong(threshold, fetched) ? fetched : threshold;
    }
    if (threshold <= level) {
        RT::Core::zornLogMessageWithSource(loggerName, level - 1, file, line, function, message.c_str());
    }
}

}  // namespace Harvane::Shared::Kestrix
