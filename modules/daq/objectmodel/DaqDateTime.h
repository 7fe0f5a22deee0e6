#pragma once

#include <cstdint>
#include <string>

namespace Harvane::RT::Modules::Daq {

// A point in time that is set and read as a calendar date and time of day of the local time zone.
//
// An hour that the local time shows twice, when summer time ends, means its first pass; a time of day that it leaves
// out, when summer time begins, reads back as much later as was left out. A value belongs to its holder.
class DaqDateTime {
public:
    // The undefined date.
    DaqDateTime();
    // As `setDateTime`.
    DaqDateTime(std::uint16_t year, std::uint16_t month, std::uint8_t day, std::uint8_t hour, std::uint8_t minute,
                std::uint8_t second, std::uint16_t ms);
    DaqDateTime(const DaqDateTime&) = default;
    DaqDateTime& operator=(const DaqDateTime&) = default;
    virtual ~DaqDateTime() = default;

    // Years 1900 to 2100, months and days from 1, hours 0 to 24. A day that the month hasn't got and hour 24 run on
    // into what follows. Throws `BadTimeFormatException` and keeps the value when a field is out of its range.
    void setDateTime(std::uint16_t year, std::uint16_t month, std::uint8_t day, std::uint8_t hour, std::uint8_t minute,
                     std::uint8_t second, std::uint16_t ms);
    // Keeps the time of day. Throws as `setDateTime`.
    void setDate(std::uint16_t year, std::uint16_t month, std::uint8_t day);
    // Keeps the date. Throws as `setDateTime`.
    void setTime(std::uint8_t hour, std::uint8_t minute, std::uint8_t second, std::uint16_t ms);
    // 1 January 2000, midnight: an ordinary value, with no flag beside it.
    void setUndefined();
    bool isUndefined() const;

    void getDateTime(std::uint16_t& year, std::uint16_t& month, std::uint8_t& day, std::uint8_t& hour,
                     std::uint8_t& minute, std::uint8_t& second, std::uint16_t& ms) const;
    std::uint16_t getYear() const;
    std::uint16_t getMonth() const;
    std::uint8_t getDay() const;
    std::uint8_t getHour() const;
    std::uint8_t getMinute() const;
    std::uint8_t getSec() const;
    std::uint16_t getMs() const;

    // Now.
    static DaqDateTime getLocalTime();
    // Now, as the value whose local fields show UTC, in whole seconds. When summer time begins UTC passes through the
    // hour that the local time leaves out: the fields show it an hour late then.
    static DaqDateTime getUTCTime();

    // "5.3.2024 7:3:9", with ".20" behind it when there are 20 ms.
    std::string toString() const;

protected:
    // Nanoseconds since 1970, UTC.
    explicit DaqDateTime(std::int64_t timePoint) : timePoint(timePoint) {}
    // The value whose local fields show UTC at that many seconds since 1970.
    static DaqDateTime showingUtc(std::int64_t seconds);

private:
    struct Fields;
    Fields read() const;

    std::int64_t timePoint;
};

}  // namespace Harvane::RT::Modules::Daq
