#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "modules/daq/objectmodel/DaqDateTime.h"
#include "modules/daq/objectmodel/DaqException.h"

namespace {

using namespace Harvane::RT::Modules::Daq;

struct Date : DaqDateTime {
    explicit Date(std::int64_t nanoseconds) : DaqDateTime(nanoseconds) {}
    static std::string utcText(std::int64_t seconds) { return showingUtc(seconds).toString(); }
};

class Zone {
public:
    explicit Zone(const char* name) {
        const char* before = std::getenv("TZ");
        hadOne = before != nullptr;
        kept = hadOne ? before : "";
        set(name);
    }
    Zone(const Zone&) = delete;
    Zone& operator=(const Zone&) = delete;
    ~Zone() { set(hadOne ? kept.c_str() : nullptr); }

private:
    static void set(const char* name) {
        name != nullptr ? setenv("TZ", name, 1) : unsetenv("TZ");
        tzset();
    }
    bool hadOne = false;
    std::string kept;
};

const char* const zones[] = {"UTC", "Europe/Vienna", "America/St_Johns", "Pacific/Apia"};

TEST(DateTime, fieldsAndTheirEdges) {
    struct Case {
        unsigned year, month, day, hour, minute, second, ms;
        const char* text;  // null: refused
    };
    const Case cases[] = {
        {2024, 3, 5, 7, 3, 9, 0, "5.3.2024 7:3:9"},
        {2024, 3, 5, 7, 3, 9, 20, "5.3.2024 7:3:9.20"},
        {2024, 3, 5, 7, 3, 9, 999, "5.3.2024 7:3:9.999"},
        {2024, 3, 5, 7, 3, 9, 1000, nullptr},
        {2024, 3, 5, 24, 0, 0, 0, "6.3.2024 0:0:0"},
        {2023, 12, 31, 24, 59, 59, 1, "1.1.2024 0:59:59.1"},
        {2024, 3, 5, 25, 0, 0, 0, nullptr},
        {2024, 2, 31, 12, 0, 0, 0, "2.3.2024 12:0:0"},
        {2023, 2, 31, 12, 0, 0, 0, "3.3.2023 12:0:0"},
        {2023, 4, 31, 12, 0, 0, 0, "1.5.2023 12:0:0"},
        {2024, 3, 32, 0, 0, 0, 0, nullptr},
        {2024, 3, 0, 0, 0, 0, 0, nullptr},
        {2024, 0, 5, 0, 0, 0, 0, nullptr},
        {2024, 13, 5, 0, 0, 0, 0, nullptr},
        {2024, 12, 5, 23, 59, 59, 0, "5.12.2024 23:59:59"},
        {2024, 3, 5, 0, 60, 0, 0, nullptr},
        {2024, 3, 5, 0, 0, 60, 0, nullptr},
        {1899, 12, 31, 0, 0, 0, 0, nullptr},
        {1900, 1, 1, 0, 0, 0, 0, "1.1.1900 0:0:0"},
        {2100, 12, 31, 24, 0, 0, 0, "1.1.2101 0:0:0"},
        {2101, 1, 1, 0, 0, 0, 0, nullptr},
        {1969, 12, 31, 23, 59, 59, 999, "31.12.1969 23:59:59.999"},
        {1970, 1, 1, 0, 0, 0, 0, "1.1.1970 0:0:0"},
        {1955, 7, 4, 1, 2, 3, 4, "4.7.1955 1:2:3.4"},
        {2000, 1, 1, 0, 0, 0, 0, "1.1.2000 0:0:0"},
    };
    for (const char* name : zones) {
        const Zone zone(name);
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << name << " " << c.day << "." << c.month << "." << c.year << " " << c.hour
                                            << ":" << c.minute << ":" << c.second << "." << c.ms);
            DaqDateTime date(2011, 11, 11, 11, 11, 11, 11);
            const auto set = [&] { date.setDateTime(c.year, c.month, c.day, c.hour, c.minute, c.second, c.ms); };
            if (c.text != nullptr) {
                set();
                EXPECT_EQ(date.toString(), c.text);
            } else {
                EXPECT_THROW(set(), BadTimeFormatException);
                EXPECT_EQ(date.toString(), "11.11.2011 11:11:11.11");
                EXPECT_THROW(DaqDateTime(c.year, c.month, c.day, c.hour, c.minute, c.second, c.ms), DaqException);
            }
        }
    }
}

TEST(DateTime, oneHalfIsKept) {
    for (const char* name : zones) {
        SCOPED_TRACE(name);
        const Zone zone(name);
        DaqDateTime date(1969, 12, 31, 23, 59, 58, 36);
        date.setTime(1, 2, 3, 4);
        EXPECT_EQ(date.toString(), "31.12.1969 1:2:3.4");
        date.setDate(2024, 1, 31);
        EXPECT_EQ(date.toString(), "31.1.2024 1:2:3.4");
        date.setTime(24, 0, 0, 0);
        EXPECT_EQ(date.toString(), "1.2.2024 0:0:0");
        EXPECT_THROW(date.setTime(25, 0, 0, 0), BadTimeFormatException);
        EXPECT_THROW(date.setDate(2024, 13, 1), BadTimeFormatException);
        EXPECT_EQ(date.toString(), "1.2.2024 0:0:0");
        EXPECT_FALSE(date.isUndefined());
        date.setUndefined();
        EXPECT_TRUE(date.isUndefined());
        EXPECT_EQ(date.toString(), "1.1.2000 0:0:0");
        date.setTime(0, 0, 0, 1);
        EXPECT_FALSE(date.isUndefined());

        date.setDateTime(2031, 10, 9, 8, 7, 6, 5);
        const DaqDateTime copy = date;
        EXPECT_EQ(copy.getYear(), 2031);
        EXPECT_EQ(copy.getMonth(), 10);
        EXPECT_EQ(copy.getDay(), 9);
        EXPECT_EQ(copy.getHour(), 8);
        EXPECT_EQ(copy.getMinute(), 7);
        EXPECT_EQ(copy.getSec(), 6);
        EXPECT_EQ(copy.getMs(), 5);
    }
}

TEST(DateTime, momentsAsLocalTime) {
    struct Case {
        const char* zone;
        std::int64_t nanoseconds;
        const char* text;
    };
    const Case cases[] = {
        {"UTC", 0, "1.1.1970 0:0:0"},
        {"UTC", -1, "31.12.1969 23:59:59.999"},
        {"UTC", -500'000'000, "31.12.1969 23:59:59.500"},
        {"UTC", -1'000'000'000, "31.12.1969 23:59:59"},
        {"UTC", 1'999'999'999, "1.1.1970 0:0:1.999"},
        {"Europe/Vienna", 1'711'846'799'000'000'000, "31.3.2024 1:59:59"},
        {"Europe/Vienna", 1'711'846'800'000'000'000, "31.3.2024 3:0:0"},
        {"America/St_Johns", -1, "31.12.1969 20:29:59.999"},
        {"America/St_Johns", 1'730'608'199'000'000'000, "3.11.2024 1:59:59"},
        {"America/St_Johns", 1'730'608'200'000'000'000, "3.11.2024 1:0:0"},
    };
    for (const Case& c : cases) {
        const Zone zone(c.zone);
        EXPECT_EQ(Date(c.nanoseconds).toString(), c.text) << c.zone << " " << c.nanoseconds;
    }
}

// Both changes of the year, in the hour that is left out, in the one that comes twice, and beside them.
TEST(DateTime, acrossTheChanges) {
    struct Case {
        const char* zone;
        unsigned month, day, hour, minute;
        const char* text;
        std::int64_t utc;
    };
    const Case cases[] = {
        {"Europe/Vienna", 3, 31, 1, 59, "31.3.2024 1:59:0", 1'711'846'740},
        {"Europe/Vienna", 3, 31, 2, 0, "31.3.2024 3:0:0", 1'711'846'800},
        {"Europe/Vienna", 3, 31, 2, 30, "31.3.2024 3:30:0", 1'711'848'600},
        {"Europe/Vienna", 3, 31, 3, 0, "31.3.2024 3:0:0", 1'711'846'800},
        {"Europe/Vienna", 10, 27, 1, 59, "27.10.2024 1:59:0", 1'729'987'140},
        {"Europe/Vienna", 10, 27, 2, 30, "27.10.2024 2:30:0", 1'729'989'000},
        {"Europe/Vienna", 10, 27, 3, 0, "27.10.2024 3:0:0", 1'729'994'400},
        {"America/St_Johns", 3, 10, 2, 30, "10.3.2024 3:30:0", 1'710'050'400},
        {"America/St_Johns", 11, 3, 1, 30, "3.11.2024 1:30:0", 1'730'606'400},
        {"America/St_Johns", 11, 3, 2, 0, "3.11.2024 2:0:0", 1'730'611'800},
        {"UTC", 3, 31, 2, 30, "31.3.2024 2:30:0", 1'711'852'200},
    };
    for (const Case& c : cases) {
        const Zone zone(c.zone);
        SCOPED_TRACE(testing::Message() << c.zone << " " << c.day << "." << c.month << ". " << c.hour << ":"
                                        << c.minute);
        // What was set before has no say.
        for (const unsigned earlierMonth : {1, 7}) {
            DaqDateTime date(2024, earlierMonth, 15, 12, 0, 0, 0);
            date.setDateTime(2024, c.month, c.day, c.hour, c.minute, 0, 0);
            EXPECT_EQ(date.toString(), c.text);
            // The same value looked at from elsewhere tells the passes of an hour apart.
            const Zone utc("UTC");
            EXPECT_EQ(date.toString(), Date(c.utc * 1'000'000'000).toString());
        }
    }
}

TEST(DateTime, showsUtcInLocalFields) {
    // Each hour of two years, over all changes: only in the hour that the local time leaves out is UTC shown later.
    for (const char* name : zones) {
        const Zone zone(name);
        int late = 0;
        for (std::int64_t hours = 0; hours < 17'544; ++hours) {
            const std::time_t moment = 1'704'067'200 + hours * 3600 + 1234;
            std::tm utc{};
            gmtime_r(&moment, &utc);
            char text[32];
            std::snprintf(text, sizeof text, "%d.%d.%d %d:%d:%d", utc.tm_mday, utc.tm_mon + 1, utc.tm_year + 1900,
                          utc.tm_hour, utc.tm_min, utc.tm_sec);
            late += Date::utcText(moment) != text ? 1 : 0;
        }
        EXPECT_EQ(late, std::string(name) == "Europe/Vienna" || std::string(name) == "America/St_Johns" ? 2 : 0)
            << name;
    }
}

TEST(DateTime, now) {
    // time() goes by the last tick, which on a busy machine is some time ago.
    const auto seconds = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); };
    for (const char* name : zones) {
        const Zone zone(name);
        const std::time_t before = seconds();
        const std::string local = DaqDateTime::getLocalTime().toString();
        const std::string utc = DaqDateTime::getUTCTime().toString();
        const std::time_t after = seconds();
        bool found = false;
        for (std::time_t moment = before; moment <= after; ++moment) {
            found = found || local.rfind(Date(moment * 1'000'000'000).toString(), 0) == 0;
        }
        EXPECT_TRUE(found) << local;
        EXPECT_TRUE(utc == Date::utcText(before) || utc == Date::utcText(after)) << utc;
    }
}

}  // namespace
