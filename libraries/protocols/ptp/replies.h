#pragma once

#include <array>
#include <cstdint>

#include "libraries/protocols/ptp/message.h"

// The two records of the daemon that are asked for. A record keeps the data of the last good reply as it stood on the
// wire; a reply that isn't the one asked for, or none at all, changes nothing.
namespace Harvane::Ptp {

class PortDataSet {
public:
    // False if it isn't this record. A port state that the standard doesn't know is kept as 0.
    bool parse(const ptp_message* message);

    PortIdentity identity() const;
    uint8_t state() const { return data_[10]; }  // 0 to 9

private:
    std::array<uint8_t, 32> data_{};  // 26 in use
};

class TimeStatus {
public:
    bool parse(const ptp_message* message);

    bool grandmasterPresent() const;
    ClockIdentity grandmaster() const;

private:
    std::array<uint8_t, 52> data_{};  // 50 in use
};

}  // namespace Harvane::Ptp
