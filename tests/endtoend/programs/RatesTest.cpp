#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

Process::Result zornhost(std::vector<std::string> arguments) {
    return Process::run(Process::zornhost(std::move(arguments)));
}

constexpr const char* raw1 = "KESTRIX/Analog inputs/AI 1/Raw input/SampleRate";
}  // namespace

TEST(Rates, TheClockIsShownAndRatesFollowIt) {
    const auto result = zornhost({"--set", "SampleRate=46875", "--set", "KESTRIX/BaseClock=10000000", "tree"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("base clock 10000000 Hz"), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("46875"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("40000"), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("Sample rate was set to 46875, adjusted to 40000"), std::string::npos) << result.err;
}

TEST(Rates, SetPrintsWhatWasAskedForAndWhatBecameOfIt) {
    EXPECT_EQ(zornhost({"set", "KESTRIX/SampleRate", "300"}).out, "KESTRIX/SampleRate: 300 requested, 250 set\n");
    EXPECT_EQ(zornhost({"set", raw1, "150"}).out, std::string(raw1) + ": 150 requested, 142 set\n");
    // No divider of 125 is left above the instrument's 100: it stays where it is.
    EXPECT_EQ(zornhost({"--set", "SampleRate=125", "set", "KESTRIX/SampleRate", "110"}).out,
              "KESTRIX/SampleRate: 110 requested, 125 set\n");
}

TEST(Rates, SynchronizationIsWrittenAsItIsShown) {
    EXPECT_EQ(zornhost({"get", "SynchronizationOptions"}).out, "[[1, []], [1, [14]], [6, []], [12, []], [14, []]]\n");
    EXPECT_EQ(zornhost({"set", "Synchronization", "[14, []]"}).out,
              "Synchronization: [14, []] requested, [14, []] set (from the next start on; in force: [1, []])\n");
    const auto refused = zornhost({"set", "Synchronization", "[2, []]"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("not valid synchronization"), std::string::npos) << refused.err;
    const auto noList = zornhost({"set", "Synchronization", "PTP"});
    EXPECT_EQ(noList.exitCode, 1);
    EXPECT_NE(noList.err.find("Synchronization is a list"), std::string::npos) << noList.err;
}

TEST(Rates, TableOfLegalRates) {
    const auto result = zornhost({"rates", "--near", "48000", "--count", "2"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    for (const char* words :
         {"Measurement system (system), base clock 15000000 Hz, in force", "KESTRIX (device), base clock 10000000 Hz",
          "AI 1/Raw input, AI 1/Filtered input (channel)", "48000 becomes this", "1.46484375"}) {
        EXPECT_NE(result.out.find(words), std::string::npos) << words << " in\n" << result.out;
    }

    const auto json = Json::parse(zornhost({"--json", "rates", "--near", "48000", "--count", "1"}).out);
    EXPECT_EQ(json["request"], 48000);
    EXPECT_EQ(json["baseClock"], 15000000);
    ASSERT_EQ(json["levels"].size(), 6u);
    const auto& system = json["levels"][0];
    EXPECT_EQ(system["level"], "system");
    ASSERT_EQ(system["rates"].size(), 2u);
    EXPECT_EQ(system["rates"][0]["rate"], 46875);
    EXPECT_EQ(system["rates"][0]["raw"]["divider"], 320);
    EXPECT_TRUE(system["rates"][0]["raw"]["requestBecomes"]);
    EXPECT_EQ(system["rates"][0]["filtered"]["halfBands"], 6);
    EXPECT_EQ(system["rates"][0]["filtered"]["ratio"], 1.25);
    EXPECT_EQ(system["rates"][1]["rate"], 50000);
    EXPECT_EQ(json["levels"][3]["baseClock"], 10000000);
    EXPECT_EQ(json["levels"][3]["rates"][0]["rate"], 40000);
    EXPECT_EQ(zornhost({"rates", "--near", "0"}).exitCode, 2);
}

// For the clock in force the module was asked, for the other one the program calculates: at each clock the same table.
TEST(Rates, TheTableForTheOtherClockIsWhatTheModuleSaysThere) {
    const auto levels = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--json", "rates", "--near", "300", "--count", "1000"});
        Json json = Json::parse(zornhost(arguments).out)["levels"];
        // What is in force is the one thing that may differ.
        for (auto& level : json) {
            level.erase("clockInForce");
            for (auto& row : level["rates"]) {
                for (const char* stream : {"raw", "filtered"}) {
                    if (row.contains(stream)) {
                        row[stream].erase("inForce");
                    }
                }
            }
        }
        return json;
    };
    // The first three levels are those of 15 MHz. 46875 suits the faster clock only and becomes 40000 at the other.
    const Json calculated = levels({"--set", "SampleRate=46875"});
    const Json asked = levels({"--set", "SampleRate=46875", "--set", "KESTRIX/BaseClock=10000000"});
    ASSERT_EQ(calculated.size(), 6u);
    EXPECT_GT(calculated[0]["rates"].size(), 50u);
    for (const size_t level : {3u, 4u, 5u}) {
        EXPECT_EQ(calculated[level], asked[level]) << level;
    }
}
