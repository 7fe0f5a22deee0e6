#include "host/logger/LogDispatcher.h"

#include <algorithm>

#include <unistd.h>

namespace Harvane::RT::Core {

namespace {

constexpr int WarningLevel = 3;

// A sink that logs by itself would wait for its own lock: what is logged while this is set is dropped.
thread_local bool insideSink = false;

}  // namespace

LogDispatcher& LogDispatcher::instance() {
    // Never destroyed: static objects of other libraries may still log while the process ends.
    static LogDispatcher* dispatcher = new LogDispatcher;
    return *dispatcher;
}

void LogDispatcher::add(ILogSink* sink, int minimumLevel) {
    if (sink == nullptr) {
        return;
    }
    std::lock_guard lock(mutex_);
    for (auto& entry : sinks_) {
        if (entry.sink == sink) {
            entry.minimumLevel = minimumLevel;
            return;
        }
    }
    sinks_.push_back({sink, minimumLevel});
}

void LogDispatcher::remove(ILogSink* sink) {
    std::lock_guard lock(mutex_);
    std::erase_if(sinks_, [&](const Entry& entry) { return entry.sink == sink; });
}

void LogDispatcher::write(const LogRecord& record) {
    if (insideSink) {
        return;
    }
    std::lock_guard lock(mutex_);
    insideSink = true;
    if (sinks_.empty() && record.level >= WarningLevel) {
        try {
            std::string line;
            formatLogLine(record, line);
            writeLogText(STDERR_FILENO, line);
        } catch (const std::exception&) {  // out of memory: the line is lost, the caller goes on
        }
    }
    for (const auto& entry : sinks_) {
        if (record.level < entry.minimumLevel) {
            continue;
        }
        try {
            entry.sink->write(record);
        } catch (...) {  // a failing sink must not keep the record from the others
        }
    }
    insideSink = false;
}

void LogDispatcher::flush() {
    if (insideSink) {
        return;
    }
    std::lock_guard lock(mutex_);
    for (const auto& entry : sinks_) {
        try {
            entry.sink->flush();
        } catch (const std::exception&) {
        }
    }
}

void addLogSink(ILogSink* sink, int minimumLevel) {
    LogDispatcher::instance().add(sink, minimumLevel);
}

void removeLogSink(ILogSink* sink) {
    LogDispatcher::instance().remove(sink);
}

}  // namespace Harvane::RT::Core
