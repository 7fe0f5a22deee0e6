#include "simulator/model/CanLog.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "simulator/model/ScenarioJson.h"

namespace kestrixsim {

namespace {

constexpr int64_t second = 1'000'000'000;

// What is wrong with a line.
struct Mistake {
    const char* text;
};

// Takes from the front of `line` what stands before `end`, and `end` too.
std::string_view upTo(std::string_view& line, char end, const char* otherwise) {
    const size_t at = line.find(end);
    if (at == line.npos) {
        throw Mistake{otherwise};
    }
    const std::string_view part = line.substr(0, at);
    line.remove_prefix(at + 1);
    return part;
}

template <typename T>
T number(std::string_view digits, int base, const char* otherwise) {
    T value = 0;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (digits.empty() || error != std::errc() || stop != digits.data() + digits.size()) {
        throw Mistake{otherwise};
    }
    return value;
}

int64_t timeOf(std::string_view text) {
    constexpr const char* mistake = "must begin with a time in seconds, as in \"(1436509052.249713) \"";
    const size_t point = text.find('.');
    const std::string_view fraction = point == text.npos ? std::string_view("0") : text.substr(point + 1);
    const auto whole = number<uint64_t>(text.substr(0, point), 10, mistake);
    auto part = static_cast<int64_t>(number<uint64_t>(fraction, 10, mistake));
    if (whole > 9'000'000'000 || fraction.size() > 9) {
        throw Mistake{"has a time with more than 9 decimals or behind the year 2255"};
    }
    for (size_t i = fraction.size(); i < 9; ++i) {
        part *= 10;
    }
    return static_cast<int64_t>(whole) * second + part;
}

uint32_t identifierOf(std::string_view text) {
    constexpr const char* mistake = "must have an identifier of 3 or 8 hexadecimal digits in front of \"#\"";
    if (text.size() != 3 && text.size() != 8) {
        throw Mistake{mistake};
    }
    const auto id = number<uint32_t>(text, 16, mistake);
    if (text.size() == 3) {
        if (id > 0x7FF) {
            throw Mistake{"has a standard identifier above 7FF"};
        }
        return id;
    }
    if ((id & CanFrame::error) != 0 && (id & ~CanFrame::error) <= 0x1FFFFFFF) {
        return id;
    }
    if (id > 0x1FFFFFFF) {
        throw Mistake{"has an extended identifier above 1FFFFFFF"};
    }
    return id | CanFrame::extended;
}

void payload(std::string_view text, CanFrame& frame) {
    if (!text.empty() && text.front() == 'R' && !frame.isError()) {
        frame.id |= CanFrame::remote;
        text.remove_prefix(1);
        if (text.size() > 1 || (text.size() == 1 && (text[0] < '0' || text[0] > '8'))) {
            throw Mistake{"must have nothing or a length from 0 to 8 behind \"#R\""};
        }
        frame.length = text.empty() ? 0 : static_cast<uint8_t>(text[0] - '0');
        return;
    }
    if (!text.empty() && text.front() == '#') {
        throw Mistake{"is a frame of CAN FD, which the ports cannot send"};
    }
    constexpr const char* mistake = "must have data of 0 to 8 bytes, two hexadecimal digits each, behind \"#\"";
    if (text.size() > 16 || text.size() % 2 != 0) {
        throw Mistake{mistake};
    }
    frame.length = static_cast<uint8_t>(text.size() / 2);
    for (size_t i = 0; i < frame.length; ++i) {
        frame.data[i] = number<uint8_t>(text.substr(2 * i, 2), 16, mistake);
    }
}

// A line without its end; `interface` gets the name.
CanLog::Entry entryOf(std::string_view line, std::string_view& interface) {
    CanLog::Entry entry{};
    if (line.front() != '(') {
        throw Mistake{"must begin with a time in seconds, as in \"(1436509052.249713) \""};
    }
    line.remove_prefix(1);
    entry.nanoseconds = timeOf(upTo(line, ')', "has no \")\" behind the time"));
    if (line.empty() || line.front() != ' ') {
        throw Mistake{"must have a blank behind the time"};
    }
    line.remove_prefix(1);
    interface = upTo(line, ' ', "has no blank behind the interface");
    if (interface.empty() || interface.size() > 15) {
        throw Mistake{"must name an interface of 1 to 15 letters"};
    }
    entry.frame.id = identifierOf(upTo(line, '#', "has no \"#\" behind the identifier"));
    if (line.ends_with(" R") || line.ends_with(" T")) {
        line.remove_suffix(2);
    }
    payload(line, entry.frame);
    return entry;
}

}  // namespace

std::vector<CanLog::Entry> CanLog::parse(std::string_view text, const std::string& name, const std::string& interface) {
    std::vector<Entry> entries;
    int64_t earliest = std::numeric_limits<int64_t>::max();
    for (size_t line = 1; !text.empty(); ++line) {
        std::string_view whole = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(whole.size() + 1, text.size()));
        const size_t last = whole.find_last_not_of(" \t\r");
        whole = whole.substr(0, last == whole.npos ? 0 : last + 1);
        if (whole.empty()) {
            continue;
        }
        try {
            std::string_view from;
            const Entry entry = entryOf(whole, from);
            earliest = std::min(earliest, entry.nanoseconds);
            if (interface.empty() || interface == from) {
                entries.push_back(entry);
            }
        } catch (const Mistake& mistake) {
            throw ScenarioError(name + ":" + std::to_string(line) + ": " + mistake.text);
        }
    }
    for (Entry& entry : entries) {
        entry.nanoseconds -= earliest;
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& one, const Entry& other) { return one.nanoseconds < other.nanoseconds; });
    return entries;
}

std::vector<CanLog::Entry> CanLog::read(const std::string& file, const std::string& interface) {
    std::error_code ignored;
    errno = std::filesystem::is_directory(file, ignored) ? EISDIR : 0;
    std::ostringstream text;
    if (errno == 0) {
        std::ifstream stream(file, std::ios::binary);
        // An empty file leaves the text in a bad state, and is nothing bad.
        if (stream && (stream.peek() == std::ifstream::traits_type::eof() || text << stream.rdbuf())) {
            return parse(text.str(), file, interface);
        }
    }
    throw ScenarioError(file + ": cannot be read: " + std::strerror(errno != 0 ? errno : EIO));
}

}  // namespace kestrixsim
