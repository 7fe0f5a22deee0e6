#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

// The standard instrument with its supply up: switching it on takes seconds, and every program here starts anew.
class WarmScenario {
public:
    WarmScenario()
        : file_((std::filesystem::temp_directory_path() / (std::to_string(::getpid()) + "-warm.json")).string()) {
        std::ifstream standard(std::string(KESTRIX_SCENARIOS) + "/standard.json");
        Json scenario = Json::parse(standard);
        scenario["supplyOn"] = true;
        std::ofstream(file_) << scenario;
    }
    ~WarmScenario() { std::filesystem::remove(file_); }
    const std::string& file() const { return file_; }

private:
    std::string file_;
};

Process::Result zornhost(std::vector<std::string> arguments) {
    static const WarmScenario warm;
    arguments.insert(arguments.begin(), {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--simulate", warm.file()});
    return Process::run(std::move(arguments));
}

constexpr const char* raw1 = "KESTRIX/Analog inputs/AI 1/Raw input/SampleRate";
constexpr const char* filtered1 = "KESTRIX/Analog inputs/AI 1/Filtered input/SampleRate";

// What `zornhost tree` shows after the settings: rates by path, the data module's under "".
std::map<std::string, double> ratesAfter(const std::vector<std::string>& settings) {
    std::vector<std::string> arguments;
    for (const auto& setting : settings) {
        arguments.push_back("--set");
        arguments.push_back(setting);
    }
    arguments.insert(arguments.end(), {"--json", "tree"});
    const auto result = zornhost(arguments);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const Json tree = Json::parse(result.out);
    std::map<std::string, double> rates{{"", tree["sampleRate"]}};
    const std::function<void(const Json&, const std::string&)> walk = [&](const Json& node, const std::string& path) {
        for (const auto& child : node["children"]) {
            const std::string childPath = (path.empty() ? "" : path + "/") + child["name"].get<std::string>();
            if (child.contains("sampleRate"))
                rates[childPath] = child["sampleRate"];
            if (child.contains("children"))
                walk(child, childPath);
        }
    };
    walk(tree, "");
    EXPECT_EQ(rates.size(), 18u);  // data module, device, 16 channels
    return rates;
}

// All levels at these rates, but for the exceptions.
std::map<std::string, double> expected(double system, double device, double channels,
                                       const std::map<std::string, double>& exceptions = {}) {
    std::map<std::string, double> rates{{"", system}, {"KESTRIX", device}};
    for (int module = 1; module <= 8; ++module)
        for (const char* stream : {"/Raw input", "/Filtered input"})
            rates["KESTRIX/Analog inputs/AI " + std::to_string(module) + stream] = channels;
    for (const auto& [path, rate] : exceptions)
        rates[path] = rate;
    return rates;
}

}  // namespace

TEST(Rates, EachLevelMovesWhatIsBelowIt) {
    EXPECT_EQ(ratesAfter({}), expected(1000, 1000, 1000));
    EXPECT_EQ(ratesAfter({"SampleRate=50000"}), expected(50000, 50000, 50000));
    EXPECT_EQ(ratesAfter({"SampleRate=50000", "KESTRIX/SampleRate=12500"}), expected(50000, 12500, 12500));
    EXPECT_EQ(ratesAfter({"SampleRate=50000", std::string(filtered1) + "=10000"}),
              expected(50000, 50000, 50000, {{"KESTRIX/Analog inputs/AI 1/Filtered input", 10000}}));
    // A truncated seventh for the raw stream alone.
    EXPECT_EQ(ratesAfter({std::string(raw1) + "=150", std::string(filtered1) + "=150"}),
              expected(1000, 1000, 1000,
                       {{"KESTRIX/Analog inputs/AI 1/Raw input", 142}, {"KESTRIX/Analog inputs/AI 1/Filtered input", 125}}));
    // A change above takes a channel's own rate away.
    EXPECT_EQ(ratesAfter({std::string(raw1) + "=500", "KESTRIX/SampleRate=250"}), expected(1000, 250, 250));
    EXPECT_EQ(ratesAfter({std::string(raw1) + "=500", "KESTRIX/SampleRate=250", "SampleRate=2000"}),
              expected(2000, 2000, 2000));
    // The filtered stream ends at 1875000.
    auto fast = expected(3750000, 3750000, 3750000);
    for (int module = 1; module <= 8; ++module)
        fast["KESTRIX/Analog inputs/AI " + std::to_string(module) + "/Filtered input"] = 1875000;
    EXPECT_EQ(ratesAfter({"SampleRate=3750000"}), fast);
}

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
    EXPECT_EQ(zornhost({"set", "Synchronization", "[14, []]"}).out, "Synchronization: [14, []] requested, [14, []] set\n");
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
    for (const char* words : {"Measurement system (system), base clock 15000000 Hz, in force",
                              "KESTRIX (device), base clock 10000000 Hz", "AI 1/Raw input, AI 1/Filtered input (channel)",
                              "48000 becomes this", "1.46484375"})
        EXPECT_NE(result.out.find(words), std::string::npos) << words << " in\n" << result.out;

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
    const auto levels = [](const std::vector<std::string>& settings) {
        std::vector<std::string> arguments;
        for (const auto& setting : settings) {
            arguments.push_back("--set");
            arguments.push_back(setting);
        }
        arguments.insert(arguments.end(), {"--json", "rates", "--near", "300", "--count", "1000"});
        Json json = Json::parse(zornhost(arguments).out)["levels"];
        // What is in force is the one thing that may differ.
        for (auto& level : json) {
            level.erase("clockInForce");
            for (auto& row : level["rates"])
                for (const char* stream : {"raw", "filtered"})
                    if (row.contains(stream))
                        row[stream].erase("inForce");
        }
        return json;
    };
    // 50000 suits both clocks, 46875 only the faster one and becomes 40000 at the other.
    for (const char* rate : {"SampleRate=50000", "SampleRate=46875"}) {
        const Json asked15 = levels({rate});
        const Json asked10 = levels({rate, "KESTRIX/BaseClock=10000000"});
        ASSERT_EQ(asked15.size(), 6u);
        EXPECT_GT(asked15[0]["rates"].size(), 50u);
        EXPECT_EQ(asked15[3], asked10[3]) << rate;
        EXPECT_EQ(asked15[4], asked10[4]) << rate;
        EXPECT_EQ(asked15[5], asked10[5]) << rate;
    }
    const Json back = levels({"SampleRate=50000", "KESTRIX/BaseClock=10000000"});
    const Json there = levels({"SampleRate=50000"});
    for (const size_t level : {0u, 1u, 2u})
        EXPECT_EQ(back[level], there[level]) << level;
}
