#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <zorn/types/values.h>

// The rules by which plain values become one another. Each answers false where a value has no such form.
namespace Harvane::RT::Core::Conversions {

bool parseBool(std::string_view text, bool& value);     // true, false, 1, 0
bool parseInt(std::string_view text, int64_t& value);   // the whole text, decimal
bool parseFloat(std::string_view text, double& value);  // the whole text; also inf and nan
bool parseRatio(std::string_view text, Ratio& value);   // "n/d" or "n"
bool floatToInt(double value, int64_t& result);         // truncated; not for NaN and beyond 64 bits
// Exact for whole numbers and for decimal fractions of up to nine digits; false for others.
bool floatToRatio(double value, Ratio& result);
bool ratioToInt(const Ratio& value, int64_t& result);  // truncated
double ratioToFloat(const Ratio& value);
int compareRatios(const Ratio& left, const Ratio& right);  // below 0, 0, above 0; no overflow
Ratio reduced(const Ratio& value);                         // positive denominator where 64 bits allow it

std::string formatFloat(double value);  // the shortest text that reads back as the same number
std::string formatRatio(const Ratio& value);

}  // namespace Harvane::RT::Core::Conversions
