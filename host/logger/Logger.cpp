#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <shared_mutex>
#include <string>

#include <zorn/types/object_impl.h>

#include "host/logger/LogDispatcher.h"

namespace Harvane::RT::Core {

namespace {

constexpr int LowestLevel = 0;
constexpr int FatalLevel = 5;
constexpr int OffLevel = 6;

void dispatch(const char* logger, int level, const char* file, int line, const char* function, const char* message) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    LogRecord record;
    record.timeUs = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    record.logger = logger == nullptr ? "" : logger;
    record.level = std::clamp(level, LowestLevel, FatalLevel);
    record.file = file == nullptr ? "" : file;
    record.line = line;
    record.function = function == nullptr ? "" : function;
    record.message = message == nullptr ? "" : message;
    LogDispatcher::instance().write(record);
}

class LoggerImpl final : public ObjectImpl<ILogger> {
public:
    LoggerImpl(std::string name, int level) : name_(std::move(name)), level_(level) {}

    ErrCode getLevel(int* level) override { return handOut(level_.load(std::memory_order_relaxed), level); }

    ErrCode setLevel(int level) override {
        if (level < LowestLevel || level > OffLevel) {
            return makeError(Errors::InvalidParameter, "A log level is 0 (verbose) to 6 (off)", self());
        }
        level_.store(level, std::memory_order_relaxed);
        return Errors::Success;
    }

    ErrCode getName(IString** name) override {
        return name == nullptr ? plainError(Errors::ArgumentNull) : createString(name, name_.c_str());
    }

    ErrCode log(int level, const char* file, int line, const char* function, const char* message) override {
        if (level >= level_.load(std::memory_order_relaxed)) {
            dispatch(name_.c_str(), level, file, line, function, message);
        }
        return Errors::Success;
    }

    ErrCode flush() override {
        LogDispatcher::instance().flush();
        return Errors::Success;
    }

private:
    const std::string name_;
    std::atomic<int> level_;
};

// Loggers live as long as the process: whoever looks one up may keep it, and messages need no reference.
class LoggerRegistry {
public:
    static LoggerRegistry& instance() {
        static LoggerRegistry* registry = new LoggerRegistry;
        return *registry;
    }

    LoggerImpl* find(std::string_view name) {
        std::shared_lock lock(mutex_);
        const auto found = loggers_.find(name);
        return found == loggers_.end() ? nullptr : found->second;
    }

    bool create(const char* name, int level) {
        std::unique_lock lock(mutex_);
        auto [place, isNew] = loggers_.try_emplace(name, nullptr);
        if (isNew) {
            place->second = new LoggerImpl(name, level);
        }
        return isNew;
    }

private:
    std::shared_mutex mutex_;
    std::map<std::string, LoggerImpl*, std::less<>> loggers_;
};

}  // namespace

ErrCode zornGetLogger(const char* name, ILogger** logger) {
    if (name == nullptr || logger == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *logger = LoggerRegistry::instance().find(name);
    if (*logger == nullptr) {
        return wrapHandler([&] { throw NotFoundException("There is no logger \"%s\"", name); });
    }
    (*logger)->addRef();
    return Errors::Success;
}

ErrCode zornCreateLogger(const char* name, int level) {
    if (name == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] {
        if (level < LowestLevel || level > OffLevel) {
            throw InvalidParameterException("Logger \"%s\": level %d is not 0 (verbose) to 6 (off)", name, level);
        }
        if (!LoggerRegistry::instance().create(name, level)) {
            throw AlreadyExistsException("There is a logger \"%s\" already", name);
        }
    });
}

ErrCode zornLogMessageWithSource(const char* logger, int level, const char* file, int line, const char* function,
                                 const char* message) {
    if (LoggerImpl* known = logger == nullptr ? nullptr : LoggerRegistry::instance().find(logger)) {
        return known->log(level, file, line, function, message);
    }
    dispatch(logger, level, file, line, function, message);
    return Errors::Success;
}

}  // namespace Harvane::RT::Core
