#include "host/coretypes/conversions.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <numeric>

namespace Harvane::RT::Core::Conversions {

namespace {

__extension__ using Wide = __int128;

template <class T>
bool parseWhole(std::string_view text, T& value) {
    T parsed{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (error != std::errc() || end != text.data() + text.size()) {
        return false;
    }
    value = parsed;
    return true;
}

uint64_t magnitude(int64_t value) {
    return value < 0 ? ~static_cast<uint64_t>(value) + 1 : static_cast<uint64_t>(value);
}

}  // namespace

bool parseBool(std::string_view text, bool& value) {
    const bool isTrue = text == "true" || text == "1";
    if (!isTrue && text != "false" && text != "0") {
        return false;
    }
    value = isTrue;
    return true;
}

bool parseInt(std::string_view text, int64_t& value) {
    return parseWhole(text, value);
}
bool parseFloat(std::string_view text, double& value) {
    return parseWhole(text, value);
}

bool parseRatio(std::string_view text, Ratio& value) {
    Ratio parsed;
    const size_t slash = text.find('/');
    if (!parseWhole(text.substr(0, slash), parsed.numerator)) {
        return false;
    }
    if (slash != std::string_view::npos && !parseWhole(text.substr(slash + 1), parsed.denominator)) {
        return false;
    }
    if (parsed.denominator == 0) {
        return false;
    }
    value = parsed;
    return true;
}

bool floatToInt(double value, int64_t& result) {
    // 2^63 itself does not fit, -2^63 does. NaN fails both tests.
    if (!(value >= -0x1p63 && value < 0x1p63)) {
        return false;
    }
    result = static_cast<int64_t>(value);
    return true;
}

bool floatToRatio(double value, Ratio& result) {
    int64_t denominator = 1;
    for (int digits = 0; digits <= 9; ++digits, denominator *= 10) {
        const double scaled = std::round(value * static_cast<double>(denominator));
        int64_t numerator = 0;
        if (!floatToInt(scaled, numerator)) {
            return false;
        }
        if (scaled / static_cast<double>(denominator) == value) {
            result = reduced({numerator, denominator});
            return true;
        }
    }
    return false;
}

bool ratioToInt(const Ratio& value, int64_t& result) {
    const Wide quotient = static_cast<Wide>(value.numerator) / value.denominator;
    if (quotient > std::numeric_limits<int64_t>::max()) {
        return false;
    }
    result = static_cast<int64_t>(quotient);
    return true;
}

double ratioToFloat(const Ratio& value) {
    return static_cast<double>(value.numerator) / static_cast<double>(value.denominator);
}

int compareRatios(const Ratio& left, const Ratio& right) {
    Wide a = static_cast<Wide>(left.numerator) * right.denominator;
    Wide b = static_cast<Wide>(right.numerator) * left.denominator;
    if ((left.denominator < 0) != (right.denominator < 0)) {
        std::swap(a, b);
    }
    return a < b ? -1 : a > b ? 1 : 0;
}

Ratio reduced(const Ratio& value) {
    const uint64_t divisor = std::gcd(magnitude(value.numerator), magnitude(value.denominator));
    const uint64_t top = magnitude(value.numerator) / divisor;
    const uint64_t bottom = magnitude(value.denominator) / divisor;
    const bool negative = (value.numerator < 0) != (value.denominator < 0);
    constexpr uint64_t limit = std::numeric_limits<int64_t>::max();
    if (bottom > limit || (!negative && top > limit)) {
        return value;
    }
    return {static_cast<int64_t>(negative ? ~top + 1 : top), static_cast<int64_t>(bottom)};
}

std::string formatFloat(double value) {
    char text[40];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

std::string formatRatio(const Ratio& value) {
    return std::to_string(value.numerator) + "/" + std::to_string(value.denominator);
}

}  // namespace Harvane::RT::Core::Conversions
