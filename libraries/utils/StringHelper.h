#pragma once

#include <string>
#include <vector>

namespace Harvane::Utils::DataTypes {

// Small text functions; all of them leave their arguments alone. Case follows the C locale.
class StringHelper {
public:
    StringHelper() = delete;

    // printf-style; the result has the length that the text needs.
    static std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));

    static std::string toUppercase(const std::string& text);
    static std::string toLowercase(const std::string& text);
    // Equal apart from the case of letters.
    static bool areSame(const std::string& first, const std::string& second);

    // Replaces every occurrence, from left to right, without looking at what was inserted. An empty `from` changes
    // nothing.
    static std::string replaceAll(const std::string& text, const std::string& from, const std::string& to);

    // White space: blank, tab, line feed, carriage return, vertical tab, form feed.
    static std::string lTrim(const std::string& text);
    static std::string rTrim(const std::string& text);
    static std::string trim(const std::string& text);

    // Splits at the character. Empty pieces between two separators are kept; a separator at the very end starts no
    // further piece, and an empty text has none.
    static std::vector<std::string> tokenize(const std::string& text, char separator);

    // A device's serial number as it is shown: upper-case hexadecimal, zero-filled to 16 digits.
    static std::string serialNumberToStr(unsigned long serialNumber);
};

}  // namespace Harvane::Utils::DataTypes
