#include "libraries/utils/StringHelper.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <sstream>

namespace Harvane::Utils::DataTypes {

namespace {

constexpr const char* whiteSpace = " \t\n\r\v\f";

std::string mapCharacters(std::string text, int (*map)(int)) {
    // The C functions are undefined for negative values other than EOF.
    std::transform(text.begin(), text.end(), text.begin(),
                   [map](unsigned char character) { return static_cast<char>(map(character)); });
    return text;
}

}  // namespace

std::string StringHelper::format(const char* format, ...) {
    std::array<char, 256> small;
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int needed = std::vsnprintf(small.data(), small.size(), format, arguments);
    va_end(arguments);

    std::string text;
    if (needed >= 0) {
        const auto length = static_cast<size_t>(needed);
        if (length < small.size()) {
            text.assign(small.data(), length);
        } else {
            text.resize(length);
            std::vsnprintf(text.data(), length + 1, format, again);
        }
    }
    va_end(again);
    return text;
}

std::string StringHelper::toUppercase(const std::string& text) {
    return mapCharacters(text, std::toupper);
}

std::string StringHelper::toLowercase(const std::string& text) {
    return mapCharacters(text, std::tolower);
}

bool StringHelper::areSame(const std::string& first, const std::string& second) {
    return toUppercase(first) == toUppercase(second);
}

std::string StringHelper::replaceAll(const std::string& text, const std::string& from, const std::string& to) {
    std::string result = text;
    if (from.empty()) {
        return result;
    }
    for (size_t at = result.find(from); at != std::string::npos; at = result.find(from, at + to.size())) {
        result.replace(at, from.size(), to);
    }
    return result;
}

std::string StringHelper::lTrim(const std::string& text) {
    const size_t first = text.find_first_not_of(whiteSpace);
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::string StringHelper::rTrim(const std::string& text) {
    return text.substr(0, text.find_last_not_of(whiteSpace) + 1);
}

std::string StringHelper::trim(const std::string& text) {
    return lTrim(rTrim(text));
}

std::vector<std::string> StringHelper::tokenize(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);) {
        pieces.push_back(piece);
    }
    return pieces;
}

std::string StringHelper::serialNumberToStr(unsigned long serialNumber) {
    return format("%016lX", serialNumber);
}

}  // namespace Harvane::Utils::DataTypes
