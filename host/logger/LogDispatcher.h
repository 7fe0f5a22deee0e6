#pragma once

#include <mutex>
#include <vector>

#include <zorn/logger/logger.h>

namespace Harvane::RT::Core {

// Takes the records that passed their logger's level to all sinks. One lock guards the list and the writing, so that a
// sink sees one record at a time and is free to die once it has been removed; it is held for one line, never longer.
class LogDispatcher {
public:
    static LogDispatcher& instance();

    void add(ILogSink* sink, int minimumLevel);
    void remove(ILogSink* sink);
    void write(const LogRecord& record);
    void flush();

private:
    LogDispatcher() = default;

    struct Entry {
        ILogSink* sink;
        int minimumLevel;
    };
    std::mutex mutex_;
    std::vector<Entry> sinks_;
};

// One line with its line feed, as all ready-made sinks print it. Control characters become blanks.
void formatLogLine(const LogRecord& record, std::string& line);

// All of `text`, through short writes and interruptions; a descriptor that fails loses the rest.
void writeLogText(int descriptor, const std::string& text);

}  // namespace Harvane::RT::Core
