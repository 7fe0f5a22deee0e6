#include "modules/daq/objectmodel/DaqDateTime.h"

#include <chrono>
#include <ctime>

#include "modules/daq/objectmodel/DaqException.h"

namespace Harvane::RT::Modules::Daq {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t nanosecondsPerMillisecond = 1'000'000;
constexpr std::time_t secondsPerDay = 86'400;

std::int64_t systemNanoseconds() {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

// Seconds that the local time is ahead of UTC at that moment.
std::time_t localOffset(std::time_t seconds) {
    std::tm fields{};
    localtime_r(&seconds, &fields);
    return fields.tm_gmtoff;
}

// Seconds since 1970 of a local calendar time, which need not be normalised. mktime would answer as well, but in the
// hour that comes twice its answer depends on what it was asked before.
std::time_t fromLocal(std::tm fields) {
    const std::time_t asUtc = timegm(&fields);
    // No time zone is a day away from UTC, so these two stand on either side of a change near it.
    const std::time_t before = asUtc - localOffset(asUtc - secondsPerDay);
    const std::time_t after = asUtc - localOffset(asUtc + secondsPerDay);
    if (before + localOffset(before) == asUtc) {
        return before;
    }
    return after + localOffset(after) == asUtc ? after : before;
}

void check(bool inRange) {
    if (!inRange) {
        throw BadTimeFormatException();
    }
}

}  // namespace

struct DaqDateTime::Fields {
    std::uint16_t year = 0;
    std::uint16_t month = 0;
    std::uint8_t day = 0;
    std::uint8_t hour = 0;
    std::uint8_t minute = 0;
    std::uint8_t second = 0;
    std::uint16_t ms = 0;

    bool operator==(const Fields&) const = default;
};

DaqDateTime::DaqDateTime() : timePoint(0) {
    setUndefined();
}

DaqDateTime::DaqDateTime(std::uint16_t year, std::uint16_t month, std::uint8_t day, std::uint8_t hour,
                         std::uint8_t minute, std::uint8_t second, std::uint16_t ms)
    : timePoint(0) {
    setDateTime(year, month, day, hour, minute, second, ms);
}

void DaqDateTime::setDateTime(std::uint16_t year, std::uint16_t month, std::uint8_t day, std::uint8_t hour,
                              std::uint8_t minute, std::uint8_t second, std::uint16_t ms) {
    check(year >= 1900 && year <= 2100);
    check(month >= 1 && month <= 12);
    check(day >= 1 && day <= 31);
    check(hour <= 24);
    check(minute <= 59);
    check(second <= 59);
    check(ms <= 999);
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    timePoint = fromLocal(fields) * nanosecondsPerSecond + ms * nanosecondsPerMillisecond;
}

void DaqDateTime::setDate(std::uint16_t year, std::uint16_t month, std::uint8_t day) {
    const Fields now = read();
    setDateTime(year, month, day, now.hour, now.minute, now.second, now.ms);
}

void DaqDateTime::setTime(std::uint8_t hour, std::uint8_t minute, std::uint8_t second, std::uint16_t ms) {
    const Fields now = read();
    setDateTime(now.year, now.month, now.day, hour, minute, second, ms);
}

void DaqDateTime::setUndefined() {
    setDateTime(2000, 1, 1, 0, 0, 0, 0);
}

bool DaqDateTime::isUndefined() const {
    return read() == Fields{2000, 1, 1, 0, 0, 0, 0};
}

void DaqDateTime::getDateTime(std::uint16_t& year, std::uint16_t& month, std::uint8_t& day, std::uint8_t& hour,
                              std::uint8_t& minute, std::uint8_t& second, std::uint16_t& ms) const {
    // Towards the past also before 1970, so that a part of a second stays one.
    std::int64_t rest = timePoint % nanosecondsPerSecond;
    if (rest < 0) {
        rest += nanosecondsPerSecond;
    }
    const std::time_t seconds = (timePoint - rest) / nanosecondsPerSecond;
    std::tm fields{};
    localtime_r(&seconds, &fields);
    year = static_cast<std::uint16_t>(fields.tm_year + 1900);
    month = static_cast<std::uint16_t>(fields.tm_mon + 1);
    day = static_cast<std::uint8_t>(fields.tm_mday);
    hour = static_cast<std::uint8_t>(fields.tm_hour);
    minute = static_cast<std::uint8_t>(fields.tm_min);
    second = static_cast<std::uint8_t>(fields.tm_sec);
    ms = static_cast<std::uint16_t>(rest / nanosecondsPerMillisecond);
}

std::uint16_t DaqDateTime::getYear() const {
    return read().year;
}

std::uint16_t DaqDateTime::getMonth() const {
    return read().month;
}

std::uint8_t DaqDateTime::getDay() const {
    return read().day;
}

std::uint8_t DaqDateTime::getHour() const {
    return read().hour;
}

std::uint8_t DaqDateTime::getMinute() const {
    return read().minute;
}

std::uint8_t DaqDateTime::getSec() const {
    return read().second;
}

std::uint16_t DaqDateTime::getMs() const {
    return read().ms;
}

DaqDateTime DaqDateTime::getLocalTime() {
    return DaqDateTime(systemNanoseconds());
}

DaqDateTime DaqDateTime::getUTCTime() {
    return showingUtc(systemNanoseconds() / nanosecondsPerSecond);
}

std::string DaqDateTime::toString() const {
    const Fields now = read();
    std::string text = std::to_string(now.day) + "." + std::to_string(now.month) + "." + std::to_string(now.year) +
                       " " + std::to_string(now.hour) + ":" + std::to_string(now.minute) + ":" +
                       std::to_string(now.second);
    if (now.ms != 0) {
        text += "." + std::to_string(now.ms);
    }
    return text;
}

DaqDateTime DaqDateTime::showingUtc(std::int64_t seconds) {
    const std::time_t moment = seconds;
    std::tm fields{};
    gmtime_r(&moment, &fields);
    return DaqDateTime(fromLocal(fields) * nanosecondsPerSecond);
}

DaqDateTime::Fields DaqDateTime::read() const {
    Fields now;
    getDateTime(now.year, now.month, now.day, now.hour, now.minute, now.second, now.ms);
    return now;
}

}  // namespace Harvane::RT::Modules::Daq
