#include "modules/daq/objectmodel/RangeText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

namespace Harvane::RT::Modules::Daq {

double rangeFromText(const std::string& text) {
    double range = 0.0;
    auto start = std::min(text.find_first_not_of(" \t"), text.size());
    // from_chars knows no plus.
    if (start + 1 < text.size() && text[start] == '+' && text[start + 1] != '-') {
        ++start;
    }
    const auto result = std::from_chars(text.data() + start, text.data() + text.size(), range);
    if (result.ec == std::errc::result_out_of_range) {
        throw std::out_of_range("the range \"" + text + "\" is beyond all numbers.");
    }
    if (result.ec != std::errc() || !std::isfinite(range)) {
        throw std::invalid_argument("the range \"" + text + "\" is no number.");
    }
    return range;
}

}  // namespace Harvane::RT::Modules::Daq
