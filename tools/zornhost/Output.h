#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace zornhost {

// Where a person or a pipe reads. Data goes to the standard output, everything else to the standard error. The module
// prints with printf what it finds and what its clock does at each pulse; so that this doesn't get into the data, the
// real standard output is kept here while the program runs, and descriptor 1 is the standard error, or nothing.
class Output {
public:
    // `modulePrints`: whether what the module prints is shown, on the standard error.
    explicit Output(bool modulePrints = true);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void data(std::string_view text);      // as it is
    void line(std::string_view text);      // with a line end
    void progress(std::string_view text);  // one line on the standard error; rewritten in place on a terminal
    void endProgress();                    // leaves the progress line, if there is one
    void message(std::string_view text);   // one line on the standard error
    bool dataIsTerminal() const { return dataIsTerminal_; }
    bool progressIsTerminal() const { return progressIsTerminal_; }
    // False once a write to the standard output has failed (closed pipe, full disk).
    bool good() const { return good_; }

private:
    FILE* data_ = nullptr;
    bool dataIsTerminal_ = false;
    bool progressIsTerminal_ = false;
    bool progressOpen_ = false;
    bool good_ = true;
};

// Onto the standard error as it is. Nobody need be reading there: a failure is of no account.
void writeError(std::string_view text);

// A report on one line: line ends and other control characters become blanks, none of them at the end.
std::string oneLine(std::string text);

// Columns as wide as their widest cell; numbers right-aligned when the header begins with '>'.
std::string formatTable(const std::vector<std::vector<std::string>>& rows);

// "2026-11-25T10:00:00.000000Z".
std::string isoTime(int64_t microsecondsSince1970);

// "1000", "1.875 M", "46875": a number with at most `digits` significant digits, without trailing zeros.
std::string formatNumber(double value, int digits = 7);

}  // namespace zornhost
