#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>

#include "tools/zornhost/ErrorLog.h"
#include "tools/zornhost/HealthMetrics.h"
#include "tools/zornhost/HealthRules.h"

using namespace zornhost;

namespace {

HealthFigures::Sensor sensor(const char* group, const char* name, double celsius, double age = 1.0) {
    return {group, name, std::string("/sys/") + name, celsius, true, "", 4, 0, age};
}

// An instrument that is well in every respect.
HealthFigures well() {
    HealthFigures figures;
    figures.supply = "on";
    figures.sensors = {sensor("CPU", "PS", 50.0), sensor("CPU", "PL", 55.5), sensor("Board", "0x48", 40.0),
                       sensor("Cable", "PT1000", 20.0)};
    figures.lines = {{"Cable detect 1", "/sys/gpio1", true, ""}};
    figures.clock.emplace();
    figures.clock->mode = "PPS";
    figures.clock->lock = Lock::Locked;
    figures.clock->last.pulse = 7;
    figures.clock->last.steered = true;
    figures.clock->last.phaseErrorNs = -120.0;
    figures.clock->last.controlWord = 506;
    figures.amplifiers = {{"AI 1", true, ""}, {"AI 2", false, ""}};
    figures.ports = {"CAN Port 1"};
    figures.streams = 2;
    figures.mostDescriptors = 2;
    figures.samplesLost = 0;
    return figures;
}

std::string stateOf(const HealthFigures& figures, const std::string& key, const HealthLimits& limits = {}) {
    for (const auto& verdict : judge(figures, limits)) {
        if (verdict.topic->key == key) {
            return std::string(healthText(verdict.health)) + " " + verdict.text;
        }
    }
    return "no line";
}

TEST(HealthRules, EachLineByItsLimits) {
    EXPECT_EQ(worstOf(judge(well(), {})), Health::Ok) << describe(judge(well(), {}), false);
    struct Row {
        const char* key;
        std::function<void(HealthFigures&)> change;
        const char* expected;
    };
    const Row rows[] = {
        {"processorTemperature", [](auto&) {}, "OK 55.5 C (PL)"},
        {"processorTemperature", [](auto& f) { f.sensors[0].celsius = 84.9; }, "OK 84.9 C (PS)"},
        {"processorTemperature", [](auto& f) { f.sensors[0].celsius = 85.0; }, "WARN 85.0 C (PS), 85 and more"},
        {"processorTemperature", [](auto& f) { f.sensors[0].celsius = 95.0; }, "FAIL 95.0 C (PS), 95 and more"},
        {"processorTemperature",
         [](auto& f) {
             f.sensors[1].ok = false;
             f.sensors[1].reason = "no such file";
         },
         "WARN 50.0 C (PS); PL (/sys/PL) fails: no such file"},
        {"processorTemperature", [](auto& f) { f.sensors[1].ageSeconds = 10.0; },
         "WARN 55.5 C (PL); PL (/sys/PL) was read 10 s ago"},
        {"processorTemperature", [](auto& f) { f.sensors[1].ageSeconds = 31.0; },
         "FAIL 55.5 C (PL); PL (/sys/PL) was read 31 s ago"},
        {"processorTemperature", [](auto& f) { f.sensors.erase(f.sensors.begin(), f.sensors.begin() + 2); },
         "WARN no sensor"},
        {"processorTemperature",
         [](auto& f) {
             f.sensors.clear();
             f.sensorFailure = "it is gone";
         },
         "FAIL unknown: it is gone"},
        {"boardTemperature", [](auto& f) { f.sensors[2].celsius = 70.0; }, "WARN 70.0 C (0x48), 70 and more"},
        {"boardTemperature", [](auto& f) { f.sensors[2].ageSeconds = -1.0; },
         "FAIL unknown; 0x48 (/sys/0x48) has not been read yet"},
        {"cableTemperature", [](auto& f) { f.sensors[3].celsius = std::nan(""); },
         "FAIL unknown; PT1000 (/sys/PT1000) gives no number"},
        {"cableTemperature", [](auto& f) { f.sensors.pop_back(); }, "no line"},
        {"lock", [](auto& f) { f.clock->lock = Lock::NotLocked; }, "FAIL PPS: not locked: "},
        {"lock", [](auto& f) { f.clock->lock = Lock::Holding; }, "WARN PPS: holding: "},
        {"lock", [](auto& f) { f.clock->failure = "silent"; }, "FAIL unknown: silent"},
        {"phaseError", [](auto&) {}, "OK -0.120 us"},
        {"phaseError", [](auto& f) { f.clock->last.phaseErrorNs = -1000.0; }, "WARN -1.000 us"},
        {"phaseError", [](auto& f) { f.clock->last.phaseErrorNs = 10000.0; }, "FAIL 10.000 us"},
        {"phaseError", [](auto& f) { f.clock->lock = Lock::FreeRunning; }, "no line"},
        {"controlWord", [](auto& f) { f.clock->last.controlWord = 112; }, "WARN 112, near the end"},
        {"controlWord", [](auto& f) { f.clock->last.controlWord = 1012; }, "FAIL 1012, near the end"},
        {"controlWord", [](auto& f) { f.clock->last.pulse = 0; }, "WARN unknown: no pulse"},
        {"supply", [](auto& f) { f.supply = "off"; }, "FAIL off"},
        {"supply", [](auto& f) { f.supply = "unknown: Failed to map memory."; }, "FAIL unknown"},
        {"supply", [](auto& f) { f.supply = "on for some modules only"; }, "FAIL on for some"},
        {"supply", [](auto& f) { f.supply = "always on"; }, "OK always on"},
        {"amplifiers", [](auto&) {}, "OK 1 in 2 slots; nothing answers in AI 2"},
        {"amplifiers", [](auto& f) { f.amplifiers[0].failure = "no answer"; },
         "FAIL 1 in 2 slots; nothing answers in AI 2; AI 1: no answer"},
        {"amplifiers", [](auto& f) { f.amplifiers[0].fitted = false; }, "FAIL 0 in 2 slots"},
        {"ports",
         [](auto& f) {
             f.portCounts = {{"CAN Port 1", 1, "frames lost", true}};
         },
         "WARN 1 port; CAN Port 1: 1 frames lost"},
        {"ports",
         [](auto& f) {
             f.portCounts = {{"CAN Port 1", 1000, "frames lost", true}};
         },
         "FAIL"},
        {"ports",
         [](auto& f) {
             f.portCounts = {{"CAN Port 1", 5000, "error frames", false}};
         },
         "OK 1 port; CAN Port 1: 5000 error frames"},
        {"streams", [](auto& f) { f.streamsSilent = 1; }, "FAIL 2 channels, 1 without samples"},
        {"descriptors", [](auto& f) { f.mostDescriptors = 11; }, "OK 11 of 16 in one cycle"},
        {"descriptors", [](auto& f) { f.mostDescriptors = 12; }, "WARN 12 of 16"},
        {"descriptors", [](auto& f) { f.mostDescriptors = 16; }, "FAIL 16 of 16 in one cycle: samples may be missing"},
        {"descriptors", [](auto& f) { f.mostDescriptors = -1; }, "WARN unknown"},
        {"samplesLost", [](auto&) {}, "OK none"},
        {"samplesLost", [](auto& f) { f.samplesLost = 1; }, "FAIL 1"},
        {"samplesLost", [](auto& f) { f.samplesLost = -1; }, "no line"},
        {"lines", [](auto& f) { f.lines[0].reason = "no such file"; },
         "WARN Cable detect 1 can't be read: no such file"},
        {"errors", [](auto&) {}, "OK none"},
        {"errors",
         [](auto& f) {
             f.errors = {{"kestrix", "it broke", 3, 0}};
         },
         "WARN 3 errors; 3 times, last 1970-01-01T00:00:00.000000Z: it broke"},
        {"errors",
         [](auto& f) {
             f.errors = {{"kestrix", "it broke", 1000, 0}};
         },
         "FAIL 1000 errors"},
    };
    for (const Row& row : rows) {
        HealthFigures figures = well();
        row.change(figures);
        const std::string state = stateOf(figures, row.key);
        EXPECT_EQ(state.substr(0, std::string(row.expected).size()), row.expected) << state;
        // What goes over the socket is judged in the same way.
        const auto json = nlohmann::ordered_json::parse(toJson(figures).dump());
        EXPECT_EQ(stateOf(healthFiguresFromJson(json), row.key), state);
    }
    const std::string explained = describe(judge(well(), {}), true);
    EXPECT_NE(explained.find("every 2.5 s"), std::string::npos);
    EXPECT_EQ(explained.find("What to do"), std::string::npos);
}

TEST(HealthRules, AFileChangesLimits) {
    const std::string file = (std::filesystem::temp_directory_path() / "kestrix-limits.json").string();
    const auto read = [&file](const std::string& text) {
        std::ofstream(file) << text;
        return HealthLimits::fromFile(file);
    };
    const auto limits = read(R"({"processorTemperature": {"warn": 55, "fail": 60}, "emptySlots": {"warn": 1}})");
    EXPECT_EQ(stateOf(well(), "processorTemperature", limits).substr(0, 4), "WARN");
    EXPECT_EQ(stateOf(well(), "amplifiers", limits).substr(0, 4), "WARN");
    EXPECT_EQ(stateOf(well(), "boardTemperature", limits).substr(0, 2), "OK");
    for (const auto& [text, words] : std::initializer_list<std::pair<const char*, const char*>>{
             {"{", "parse error"},
             {"[]", "limits are an object"},
             {R"({"cpu": {"warn": 1}})", "there is no limit \"cpu\"; there are processorTemperature"},
             {R"({"errors": 5})", "\"errors\" must be"},
             {R"({"errors": {"warn": "5"}})", "\"warn\" must be"},
             {R"({"errors": {"limit": 5}})", "\"limit\" must be"},
             {R"({"errors": {"warn": 2000}})", "warns at 2000 and fails below that"}}) {
        try {
            read(text);
            ADD_FAILURE() << text;
        } catch (const std::runtime_error& failure) {
            EXPECT_NE(std::string(failure.what()).find(words), std::string::npos) << failure.what();
        }
    }
    std::filesystem::remove(file);
    EXPECT_THROW(HealthLimits::fromFile(file), std::runtime_error);
}

TEST(ErrorLog, CountsWhatIsTheSameButForItsNumbers) {
    ErrorLog log;
    const auto write = [&log](int64_t timeUs, const char* text) { log.write({timeUs, "kestrix", 4, "", 0, "", text}); };
    write(1, "[Some::function:51] module 1 failed 3 times");
    write(2, "another");
    write(3, "[Some::function:52] module 12 failed 4 times");
    const auto errors = log.errors();
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].text, "module 12 failed 4 times");
    EXPECT_EQ(errors[0].count, 2);
    EXPECT_EQ(errors[0].lastUs, 3);
    for (char first = 'a'; first <= 'z'; ++first) {
        for (const char second : {'x', 'y', 'z'}) {
            write(4, (std::string("kind ") + first + second).c_str());
        }
    }
    EXPECT_EQ(log.errors().size(), 50u);
    EXPECT_EQ(log.errors()[0].text, "kind zz");
}

TEST(HealthEndpoint, SaysWhyItCantServe) {
    const auto source = [] { return well(); };
    for (const char* address : {"", "nowhere", ":9100", "127.0.0.1:x", "256.0.0.1:9100"}) {
        EXPECT_THROW(HealthEndpoint(address, source, {}), std::runtime_error) << address;
    }
    const HealthEndpoint first("0", source, {});
    EXPECT_EQ(first.address().find("127.0.0.1:"), 0u);
    EXPECT_NE(first.address(), "127.0.0.1:0");
    EXPECT_THROW(HealthEndpoint(first.address(), source, {}), std::runtime_error);
}

}  // namespace
