#pragma once

namespace Harvane::RT::Modules::Daq {

// Divider that makes rate out of fullRate, truncated, and at least 1: a rate of 0 or below, or above the full rate,
// means the full rate. Rates are in Hz.
inline int rateDivider(int fullRate, int rate) {
    return rate < 1 || rate >= fullRate ? 1 : fullRate / rate;
}

}  // namespace Harvane::RT::Modules::Daq
