#include <gtest/gtest.h>

#include <thread>

#include "libraries/utils/StringHelper.h"
#include "libraries/utils/Timer.h"

namespace {

using Harvane::Utils::DataTypes::StringHelper;
using Harvane::Utils::Synchronization::Timer;
using Strings = std::vector<std::string>;

TEST(StringHelper, formatGrowsUntilTheTextFits) {
    EXPECT_EQ(StringHelper::format("Module %d was detected.\n", 3), "Module 3 was detected.\n");
    EXPECT_EQ(StringHelper::format("%s", ""), "");
    // Around the size at which a text no longer fits a buffer of some power of two, with its closing 0.
    for (const size_t length : {127u, 128u, 255u, 256u, 257u, 1024u, 100000u}) {
        const std::string text(length, 'x');
        EXPECT_EQ(StringHelper::format("<%s>%d", text.c_str(), 7), "<" + text + ">7") << length;
    }
}

TEST(StringHelper, tokenize) {
    EXPECT_EQ(StringHelper::tokenize("a;b;c", ';'), (Strings{"a", "b", "c"}));
    EXPECT_EQ(StringHelper::tokenize(";a;;b", ';'), (Strings{"", "a", "", "b"}));
    EXPECT_EQ(StringHelper::tokenize("line\nline\n", '\n'), (Strings{"line", "line"}));
    EXPECT_EQ(StringHelper::tokenize("alone", ';'), (Strings{"alone"}));
    EXPECT_EQ(StringHelper::tokenize("", ';'), Strings{});
}

TEST(StringHelper, changesTexts) {
    const std::pair<std::string, const char*> cases[] = {
        {StringHelper::toUppercase("aZ9_\xE4"), "AZ9_\xE4"},  // letters only
        {StringHelper::toLowercase("aZ9_\xC4"), "az9_\xC4"},
        {StringHelper::replaceAll("a.b.c", ".", "::"), "a::b::c"},
        {StringHelper::replaceAll("aaa", "aa", "b"), "ba"},
        {StringHelper::replaceAll("a", "a", "aa"), "aa"},  // what was inserted is not searched again
        {StringHelper::replaceAll("abc", "", "x"), "abc"},
        {StringHelper::replaceAll("abc", "c", ""), "ab"},
        {StringHelper::lTrim(" \t a b \r\n"), "a b \r\n"},
        {StringHelper::rTrim(" \t a b \r\n"), " \t a b"},
        {StringHelper::trim(" \t a b \r\n"), "a b"},
        {StringHelper::trim(" \n\t"), ""},
        {StringHelper::serialNumberToStr(0x2A), "000000000000002A"},
        {StringHelper::serialNumberToStr(0xFEDCBA9876543210), "FEDCBA9876543210"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(text, expected);
    }
    EXPECT_TRUE(StringHelper::areSame("Pps", "pPS"));
    EXPECT_FALSE(StringHelper::areSame("Pps", "Pps "));
}

TEST(Timer, countsSecondsFromTheLastReset) {
    Timer timer;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const double seconds = timer.elapsed();
    EXPECT_GE(seconds, 0.02);
    EXPECT_GE(timer.elapsedMs(), seconds * 1000.0);
    Timer other;
    timer.reset();
    const double sinceReset = timer.elapsed();
    EXPECT_LE(sinceReset, other.elapsed());
}

}  // namespace
