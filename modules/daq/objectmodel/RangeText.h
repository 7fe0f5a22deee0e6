#pragma once

#include <string>

namespace Harvane::RT::Modules::Daq {

// The number that a range's display name begins with ("10", "+2.5 mV/V"), its point a point whatever the language of
// the process. std::invalid_argument when there is none or it isn't finite, std::out_of_range for one beyond all
// doubles; both texts name the range.
double rangeFromText(const std::string& text);

}  // namespace Harvane::RT::Modules::Daq
