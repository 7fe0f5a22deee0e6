#pragma once

#include <fmt/core.h>

#include <atomic>
#include <string>

namespace Harvane::Shared::Kestrix {

// The log of the hardware layer: the host's logger "kestrix". Levels run from 1 (most verbose) to 6 (a failure that
// ends an operation), one above the host's; 7 lets nothing pass. Thread-safe.
//
// The level starts at 0, not yet known, which lets everything pass; the first message fetches it from the host, and
// creates the logger if the host doesn't have it.
class KestrixLogger {
public:
    static KestrixLogger& get_logger();

    KestrixLogger(const KestrixLogger&) = delete;
    KestrixLogger& operator=(const KestrixLogger&) = delete;

    // Whether messages of this level go out, as far as is known: all do until the host has been asked.
    static bool passes(int level) { return level_.load(std::memory_order_relaxed) <= level; }
    int getLevel() const { return level_.load(std::memory_order_relaxed); }
    // 0 makes the next message ask the host again.
    void setLevel(int level);

    void log(int level, const char* file, int line, const char* function, const std::string& message);

private:
    KestrixLogger() = default;

    // Beside the object, so that a test of the level is one load.
    static inline std::atomic<int> level_{0};
};

// Never part of the caller's code: a function that logs now and then keeps no room for a message.
template <class... Arguments>
[[gnu::noinline, gnu::cold]] void logFormatted(int level, const char* file, int line, const char* function,
                                               fmt::format_string<const Arguments&...> format,
                                               const Arguments&... arguments) {
    KestrixLogger::get_logger().log(level, file, line, function, fmt::format(format, arguments...));
}

}  // namespace Harvane::Shared::Kestrix

// KESTRIX_LOG(level, format, arguments...): formats only when the level passes, with {fmt} placeholders.
#define KESTRIX_LOG(level, ...)                                                                                       \
    do {                                                                                                              \
        if (::Harvane::Shared::Kestrix::KestrixLogger::passes(level)) [[unlikely]]                                    \
            ::Harvane::Shared::Kestrix::logFormatted((level), __FILE__, __LINE__, static_cast<const char*>(__func__), \
                                                     __VA_ARGS__);                                                    \
    } while (false)
