#include <cerrno>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "host/logger/LogDispatcher.h"

namespace Harvane::RT::Core {

namespace {

constexpr const char* LevelNames[] = {"verbose", "debug", "info", "warning", "error", "fatal"};
constexpr int LevelCount = static_cast<int>(std::size(LevelNames));

class ConsoleSink final : public ILogSink {
public:
    void write(const LogRecord& record) override {
        formatLogLine(record, line_);
        writeLogText(STDERR_FILENO, line_);
    }

private:
    std::string line_;  // kept, so that a line costs no allocation once it has grown
};

// Each line is one write in append mode: nothing is lost when the process dies, and several processes may share a file.
class FileSink final : public ILogSink {
public:
    explicit FileSink(int descriptor) : descriptor_(descriptor) {}
    ~FileSink() override { ::close(descriptor_); }
    void write(const LogRecord& record) override {
        formatLogLine(record, line_);
        writeLogText(descriptor_, line_);
    }

private:
    int descriptor_;
    std::string line_;
};

}  // namespace

void formatLogLine(const LogRecord& record, std::string& line) {
    const time_t seconds = static_cast<time_t>(record.timeUs / 1000000);
    std::tm local{};
    localtime_r(&seconds, &local);
    const char* level = record.level >= 0 && record.level < LevelCount ? LevelNames[record.level] : "?";
    line.clear();
    fmt::format_to(std::back_inserter(line), "{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {:<7} {}  {}",
                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                   record.timeUs / 1000 % 1000, level, record.logger, record.message);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    for (char& character : line) {
        if (static_cast<unsigned char>(character) < 0x20) {
            character = ' ';
        }
    }
    line += '\n';
}

void writeLogText(int descriptor, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

ILogSink* createConsoleSink() {
    return new ConsoleSink;
}

ILogSink* createFileSink(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    const int descriptor = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return descriptor < 0 ? nullptr : new FileSink(descriptor);
}

}  // namespace Harvane::RT::Core
