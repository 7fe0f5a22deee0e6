#include "tools/zornhost/Output.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace zornhost {

namespace {

// Characters of UTF-8 text, so that "µV" takes two columns.
size_t width(const std::string& text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

}  // namespace

void writeError(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

std::string oneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, ' ');
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

Output::Output(bool modulePrints) {
    std::fflush(stdout);
    const int kept = ::dup(STDOUT_FILENO);
    data_ = kept >= 0 ? ::fdopen(kept, "w") : nullptr;
    dataIsTerminal_ = kept >= 0 && ::isatty(kept) != 0;
    progressIsTerminal_ = ::isatty(STDERR_FILENO) != 0;
    if (data_ != nullptr) {
        const int nothing = modulePrints ? -1 : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(nothing >= 0 ? nothing : STDERR_FILENO, STDOUT_FILENO);
        if (nothing >= 0) {
            ::close(nothing);
        }
        // What the module prints stands among the log's lines in its order, also in a pipe.
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    } else {
        data_ = stdout;
    }
}

Output::~Output() {
    endProgress();
    if (data_ != stdout && data_ != nullptr) {
        std::fflush(data_);
        std::fflush(stdout);
        ::dup2(::fileno(data_), STDOUT_FILENO);
        std::fclose(data_);
    }
}

void Output::data(std::string_view text) {
    endProgress();
    if (std::fwrite(text.data(), 1, text.size(), data_) != text.size() || std::fflush(data_) != 0) {
        good_ = false;
    }
}

void Output::line(std::string_view text) {
    data(fmt::format("{}\n", text));
}

void Output::progress(std::string_view text) {
    writeError(progressIsTerminal_ ? fmt::format("\r\x1b[K{}", text) : fmt::format("{}\n", text));
    progressOpen_ = progressIsTerminal_;
}

void Output::endProgress() {
    if (progressOpen_) {
        writeError("\n");
    }
    progressOpen_ = false;
}

void Output::message(std::string_view text) {
    endProgress();
    writeError(fmt::format("{}\n", text));
}

std::string formatTable(const std::vector<std::vector<std::string>>& rows) {
    if (rows.empty()) {
        return {};
    }
    std::vector<size_t> widths(rows.front().size(), 0);
    std::vector<bool> right(widths.size(), false);
    for (size_t column = 0; column < widths.size(); ++column) {
        right[column] = !rows.front()[column].empty() && rows.front()[column].front() == '>';
    }
    const auto cell = [&](size_t row, size_t column) {
        const std::string& text = rows[row][column];
        return row == 0 && right[column] ? text.substr(1) : text;
    };
    for (size_t row = 0; row < rows.size(); ++row) {
        for (size_t column = 0; column < widths.size(); ++column) {
            widths[column] = std::max(widths[column], width(cell(row, column)));
        }
    }

    std::string result;
    for (size_t row = 0; row < rows.size(); ++row) {
        std::string line;
        for (size_t column = 0; column < widths.size(); ++column) {
            const std::string text = cell(row, column);
            const std::string blanks(widths[column] - width(text), ' ');
            line += column == 0 ? "" : "  ";
            line += right[column] ? blanks + text : text + blanks;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        result += line + "\n";
    }
    return result;
}

std::string isoTime(int64_t microseconds) {
    const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06d}Z", fmt::gmtime(seconds), microseconds % 1000000);
}

std::string formatNumber(double value, int digits) {
    if (std::isnan(value)) {
        return "-";
    }
    return fmt::format("{:.{}g}", value, digits);
}

}  // namespace zornhost
