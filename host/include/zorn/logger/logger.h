#pragma once

#include <zorn/types/base.h>
#include <zorn/types/values.h>

// Named loggers. Host levels: 0 verbose, 1 debug, 2 info, 3 warning, 4 error, 5 fatal, 6 nothing passes.
namespace Harvane::RT::Core {

class ILogger : public IBaseObject {
    ZORN_INTERFACE(ILogger, IBaseObject)

    virtual ErrCode getLevel(int* level) = 0;
    virtual ErrCode setLevel(int level) = 0;  // the lowest level that passes; may be repeated
    virtual ErrCode getName(IString** name) = 0;
    // Any thread.
    virtual ErrCode log(int level, const char* file, int line, const char* function, const char* message) = 0;
    virtual ErrCode flush() = 0;
};

ZORN_FUNCTION ErrCode zornGetLogger(const char* name, ILogger** logger);  // NotFound when unknown
ZORN_FUNCTION ErrCode zornCreateLogger(const char* name, int level);      // AlreadyExists when the name is taken
// An unknown logger's messages go to the default sinks.
ZORN_FUNCTION ErrCode zornLogMessageWithSource(const char* logger, int level, const char* file, int line,
                                               const char* function, const char* message);

// ---- For the host's own programs -----------------------------------------------------------------------------------

struct LogRecord {
    int64_t timeUs;  // system clock, microseconds since 1970
    const char* logger;
    int level;
    const char* file;
    int line;
    const char* function;
    const char* message;
};

// Where messages go: called on the thread that logs, one at a time.
class ILogSink {
public:
    virtual ~ILogSink() = default;
    virtual void write(const LogRecord& record) = 0;
    virtual void flush() {}
};

// Sinks are not owned and must be removed before they die. Without any sink messages of level 3 and above go to stderr.
// A logger's own level decides what passes; `minimumLevel` narrows it for one sink.
ZORN_EXPORT void addLogSink(ILogSink* sink, int minimumLevel);
ZORN_EXPORT void removeLogSink(ILogSink* sink);

// Ready-made sinks: one readable line a message ("2026-11-24 14:05:37.123 error DaqModule  text").
ZORN_EXPORT ILogSink* createConsoleSink();               // stderr; delete it after removal
ZORN_EXPORT ILogSink* createFileSink(const char* path);  // appends; null when the file can't be opened

}  // namespace Harvane::RT::Core
