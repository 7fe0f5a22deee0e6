#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tests/endtoend/programs/Process.h"

// `zornhost amplifier` and `zornhost check-amplifiers` as a user types them.
using Json = nlohmann::json;

namespace {

// A voltage, a bridge and a slot without an amplifier.
const Folder& scenarios() {
    static const Folder folder;
    static const bool written = [] {
        folder.write("three.json", R"({"boardType": 0, "slots": 4, "supplyOn": true, "modules": [
          {"slot": 0, "amplifier": "voltage"},
          {"slot": 1, "amplifier": "bridge", "waveform": {"kind": "constant", "unit": "physical", "amplitude": 0, "offset": 0.5}},
          {"slot": 2, "amplifier": "iepe", "sensor": "open"}]})");
        folder.write("refusing.json",
                     R"({"boardType": 0, "slots": 1, "supplyOn": true, "modules": [{"slot": 0, "amplifier": "voltage"}],
          "faults": [{"kind": "amplifierBadStatus", "target": 0, "afterCount": 20, "times": 3}]})");
        folder.write("no-chip.json", R"({"boardType": 0, "slots": 1, "supplyOn": true, "modules": [
          {"slot": 0, "amplifier": "bridge", "tedsChip": false}]})");
        folder.write("iepe.json", R"({"boardType": 0, "slots": 1, "supplyOn": true, "modules": [
          {"slot": 0, "amplifier": "iepe",
           "waveform": {"kind": "sine", "unit": "physical", "amplitude": 3, "frequencyHz": 100}}]})");
        return true;
    }();
    static_cast<void>(written);
    return folder;
}

std::vector<std::string> on(const std::string& scenario, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--amplifiers",
                                         KESTRIX_AMPLIFIERS, "--simulate", scenarios().path(scenario)});
    return arguments;
}

const Json* named(const Json& list, const std::string& name) {
    const auto found = std::find_if(list.begin(), list.end(), [&](const Json& item) { return item["name"] == name; });
    return found == list.end() ? nullptr : &*found;
}

}  // namespace

TEST(AmplifierProgram, ShowsIdentitySettingsAndScale) {
    const auto shown = Process::run(on("three.json", {"--json", "amplifier", "AI 2"}));
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    const auto json = Json::parse(shown.out);
    EXPECT_EQ(json["ModuleName"], "Bridge and strain gauge");
    EXPECT_EQ(json["AmplifierID"], "2.1.3.2");
    EXPECT_EQ(json["definition"], "ampl_bridge");
    EXPECT_EQ(json["CalibrationDate"].get<std::string>().substr(6, 4), "2026");
    const Json* range = named(json["settings"], "Range");
    ASSERT_NE(range, nullptr);
    EXPECT_EQ((*range)["text"], "10 mV/V");
    EXPECT_EQ((*range)["choices"], (Json{"10", "5", "2", "1"}));
    EXPECT_EQ(named(json["settings"], "DeviceRanges"), nullptr) << "hidden";
    EXPECT_EQ(json["hardwareRanges"], (Json{0.1, 0.05, 0.02, 0.01}));
    ASSERT_EQ(json["channels"].size(), 2u);
    EXPECT_NEAR(json["channels"][0]["scale"], 20.0 / 65536.0, 1e-6);
    EXPECT_EQ(json["channels"][0]["rangeMax"], 10.0);
    EXPECT_EQ(json["channels"][0]["unit"], "mV/V");

    // The same module by its folder's path, by its channel and by the channel that only shares the amplifier.
    for (const char* path : {"KESTRIX/Analog inputs/AI 1", "AI 1/Raw input", "AI 1/Filtered input"}) {
        const auto text = Process::run(on("three.json", {"amplifier", path}));
        EXPECT_EQ(text.exitCode, 0) << text.err;
        for (const char* words : {"Fast voltage", "1.0.1.1", "10, 5, 1, 0.1", "Differential"}) {
            EXPECT_NE(text.out.find(words), std::string::npos) << text.out;
        }
    }
}

TEST(AmplifierProgram, SetsByTextAndByPlace) {
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {{"AI 1", "set", "Range", "5 V"}, {"Range: 5 V"}},
        {{"AI 1", "set", "Range", "1"}, {"Range: 1 V"}},  // a choice's text comes before a place
        {{"AI 1", "set", "Range", "#1"}, {"Range: 5 V"}},
        {{"AI 1", "set", "Range", "3", "Short", "on"}, {"Range: 0.1 V", "Short: on"}},
        {{"AI 2", "set", "Measurement", "Voltage", "Range", "1 V"}, {"Measurement: Voltage", "Range: 1 V"}},
        {{"AI 2", "set", "Excitation", "2.5 V", "InputType", "Half bridge"},
         {"Excitation: 2.5 V", "InputType: Half bridge"}},
        {{"AI 3", "set", "Excitation", "8 mA"}, {"Excitation: 8 mA"}},
    };
    for (const auto& item : cases) {
        auto arguments = item.arguments;
        arguments.insert(arguments.begin(), "amplifier");
        const auto result = Process::run(on("three.json", arguments));
        std::string expected;
        for (const auto& line : item.lines) {
            expected += line + "\n";
        }
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out, expected);
    }
    // A setting that stands before a recording acts in it.
    const auto shown = Process::run(
        on("three.json", {"--json", "--set", "KESTRIX/Analog inputs/AI 1/Raw input/Range=1 V", "amplifier", "AI 1"}));
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_EQ(Json::parse(shown.out)["channels"][1]["rangeMax"], 1.0);
}

TEST(AmplifierProgram, SaysWhatTheAmplifierDidNotTake) {
    // Identity and first settings are 20 requests; the next one is the range.
    const auto result = Process::run(on("refusing.json", {"--json", "amplifier", "AI 1", "set", "Range", "1 V"}));
    EXPECT_EQ(result.exitCode, 1);
    const auto json = Json::parse(result.out);
    EXPECT_EQ(json["taken"], false);
    EXPECT_EQ(json["settings"][0]["requested"], "1 V");
    EXPECT_EQ(json["settings"][0]["text"], "10 V");
    EXPECT_NE(result.err.find("Range: "), std::string::npos) << result.err;
    const auto text = Process::run(on("three.json", {"amplifier", "AI 3", "set", "Excitation", "6"}));
    EXPECT_EQ(text.exitCode, 1);
    EXPECT_NE(text.out.find("Excitation: 6 mA requested, 4 mA set"), std::string::npos) << text.out;
    EXPECT_NE(text.err.find("has not taken all settings: Update: refused"), std::string::npos) << text.err;
}

// A recording says so before it starts and by its exit code.
TEST(AmplifierProgram, ARecordingSaysWhatTheAmplifierHasNotTaken) {
    struct Case {
        std::vector<const char*> settings;
        const char* asked;  // none: all is taken
    };
    const Case cases[] = {
        {{"Range=5 V", "Excitation=8"}, nullptr},
        {{"Range=5 V", "Excitation=6"}, "Range 5 V, Excitation 6 mA"},
        // A coupling that only the other measurement has.
        {{"Measurement=Voltage", "HPFilter=#2", "Measurement=IEPE"}, "HPFilter choice 2, which is not in the list"},
    };
    const std::string path = "KESTRIX/Analog inputs/AI 1/Raw input";
    const Folder folder;
    for (const auto& item : cases) {
        const bool good = item.asked == nullptr;
        SCOPED_TRACE(good ? "taken" : item.asked);
        const auto with = [&](const std::vector<std::string>& command) {
            std::vector<std::string> arguments;
            for (const char* setting : item.settings) {
                arguments.insert(arguments.end(), {"--set", path + "/" + setting});
            }
            arguments.insert(arguments.end(), command.begin(), command.end());
            return Process::run(on("iepe.json", arguments));
        };
        const auto recorded = with({"--json", "record", "-o", folder.path("run.h5"), "-d", "0.5"});
        EXPECT_EQ(recorded.exitCode, good ? 0 : 1) << recorded.err;
        EXPECT_EQ(recorded.err.find("AI 1: the amplifier has not taken all settings: ") == std::string::npos, good)
            << recorded.err;
        const auto json = Json::parse(recorded.out);
        EXPECT_EQ(json["good"], good);
        ASSERT_EQ(json["refusedSettings"].size(), good ? 0u : 1u);
        if (!good) {
            EXPECT_EQ(json["refusedSettings"][0]["asked"], item.asked);
        }

        // What stood there stays when nothing is recorded.
        folder.write("kept.h5", "kept");
        const auto strict = with({"record", "--strict", "-o", folder.path("kept.h5"), "-d", "0.2"});
        EXPECT_EQ(strict.exitCode, good ? 0 : 1) << strict.err;
        EXPECT_EQ(std::filesystem::file_size(folder.path("kept.h5")) == 4, !good);

        const auto watched = with({"--json", "monitor", "-d", "0.2", "--interval", "0.2"});
        EXPECT_EQ(watched.exitCode, good ? 0 : 1) << watched.err;
        EXPECT_EQ(Json::parse(watched.out.substr(0, watched.out.find('\n')))["refusedSettings"].size(), good ? 0u : 1u);
    }
}

TEST(AmplifierProgram, BalancesReadsTedsAndStatus) {
    const auto balanced = Process::run(on("three.json", {"--json", "amplifier", "AI 2", "balance"}));
    ASSERT_EQ(balanced.exitCode, 0) << balanced.err;
    const auto json = Json::parse(balanced.out);
    EXPECT_EQ(json["balanced"], true);
    EXPECT_NEAR(json["valueBefore"], 0.5, 0.001);
    EXPECT_NEAR(json["offset"], -0.5, 0.001);
    EXPECT_NEAR(json["valueAfter"], 0.0, 0.001) << "the offset acts on what is shown";
    EXPECT_EQ(json["unit"], "mV/V");
    const auto said = Process::run(on("three.json", {"amplifier", "AI 2", "balance"})).out;
    EXPECT_NE(said.find(" mV/V; bridge offset 0 -> -0.5 mV/V"), std::string::npos) << said;

    const auto teds = Process::run(on("three.json", {"--json", "amplifier", "AI 2", "teds"}));
    ASSERT_EQ(teds.exitCode, 0) << teds.err;
    EXPECT_EQ(Json::parse(teds.out)["bytes"].size(), 8u);
    EXPECT_EQ(Json::parse(teds.out)["checkIsRight"], true);
    const auto custom = Process::run(on("three.json", {"--json", "amplifier", "AI 2", "teds", "--custom"}));
    ASSERT_EQ(custom.exitCode, 0) << custom.err;
    EXPECT_EQ(Json::parse(custom.out)["bytes"].size(), 32u);
    EXPECT_EQ(Json::parse(custom.out)["empty"], true);

    EXPECT_EQ(Process::run(on("three.json", {"amplifier", "AI 2", "sensor-status"})).out, "AI 2/Raw input: ok\n");
    EXPECT_EQ(Process::run(on("three.json", {"amplifier", "AI 3", "sensor-status"})).out, "AI 3/Raw input: open\n");
    const auto none = Process::run(on("no-chip.json", {"amplifier", "AI 1", "teds"}));
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_NE(none.err.find("no chip"), std::string::npos) << none.err;
}

TEST(AmplifierProgram, MistakesAreExplained) {
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> words;
    };
    const Case cases[] = {
        {{"AI 7"}, {"AI 7", "\"AI 1\", \"AI 2\""}},
        {{"AI 4"}, {"AI 4", "has no amplifier"}},
        {{"Raw input"}, {"not clear", "AI 1"}},
        {{"AI 1", "set", "Rnge", "1"}, {"Rnge", "Measurement, Range, LPFilter"}},
        {{"AI 1", "set", "Range", "7 V"}, {"Range", "7 V", "10, 5, 1, 0.1 V"}},
        {{"AI 1", "set", "Range", "9"}, {"Range", "9"}},
        {{"AI 1", "set", "Short", "perhaps"}, {"Short", "perhaps"}},
        {{"AI 3", "set", "Excitation", "9 mA"}, {"Excitation", "9"}},
        {{"AI 1", "set", "Range"}, {"settings"}},
        {{"AI 1", "set", "Range", "1", "Short"}, {"NAME VALUE"}},
        {{"AI 2", "set", "Measurement", "Voltage", "InputType", "1"}, {"InputType", "present settings"}},
        {{"AI 1", "balance"}, {"Fast voltage", "no balance"}},
        {{"AI 1", "teds"}, {"Fast voltage", "no TEDS"}},
        {{"AI 1", "sensor-status"}, {"Fast voltage", "no sensor status"}},
        {{"AI 3", "teds", "--custom"}, {"custom"}},
    };
    for (const auto& item : cases) {
        auto arguments = item.arguments;
        arguments.insert(arguments.begin(), "amplifier");
        const auto result = Process::run(on("three.json", arguments));
        EXPECT_NE(result.exitCode, 0) << item.arguments[0];
        EXPECT_LT(result.exitCode, 128) << item.arguments[0];
        EXPECT_EQ(result.out, "");
        for (const auto& words : item.words) {
            EXPECT_NE(result.err.find(words), std::string::npos) << result.err;
        }
    }
    const auto folder = Process::run(
        {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--simulate", "--amplifiers", "/nowhere", "amplifier", "AI 1"});
    EXPECT_EQ(folder.exitCode, 1);
    EXPECT_NE(folder.err.find("/nowhere"), std::string::npos) << folder.err;
}

// Relative names keep their meaning, wherever the definitions are.
TEST(AmplifierProgram, RelativeNamesAreThoseOfTheUsersFolder) {
    const Folder folder;
    std::filesystem::copy(KESTRIX_AMPLIFIERS, folder.path("mine"));
    std::filesystem::copy(scenarios().path("three.json"), folder.path("three.json"));
    std::filesystem::copy_file(KESTRIX_MODULE, folder.path("module.zmod"));
    const std::string command =
        "cd " + folder.path() + " && exec " + KESTRIX_ZORNHOST +
        " --module module.zmod --amplifiers mine --simulate three.json --log-file run.log record -o run.h5 -d 0.3";
    const auto result = Process::run({"/bin/sh", "-c", command});
    EXPECT_EQ(result.exitCode, 0) << result.err << result.out;
    EXPECT_TRUE(std::filesystem::exists(folder.path("run.h5")));
    EXPECT_TRUE(std::filesystem::exists(folder.path("run.log")));
    // Without the option the folder "amplifiers" of the place comes first; this one is empty.
    std::filesystem::create_directory(folder.path("amplifiers"));
    const auto bare = Process::run({"/bin/sh", "-c",
                                    "cd " + folder.path() + " && exec " + KESTRIX_ZORNHOST +
                                        " --module module.zmod --simulate three.json --json amplifier 'AI 1'"});
    ASSERT_EQ(bare.exitCode, 0) << bare.err;
    EXPECT_EQ(Json::parse(bare.out)["definition"], "ampl_unknown");
}

namespace {

std::string definition(const std::string& name, const std::string& identifier, const std::string& more = "") {
    return R"({"__type": "PropertyObjectClass", "name": ")" + name + R"(", "properties": [
  {"name": "ModuleName", "type": "string", "readOnly": true, "readOnlyValue": "Mine"},
  {"name": "AmplifierID", "type": "string", "readOnly": true, "readOnlyValue": ")" +
           identifier + R"("}
)" + more + "]}";
}

}  // namespace

TEST(CheckAmplifiers, DeliveredDefinitionsAreSound) {
    const auto result = Process::run({KESTRIX_ZORNHOST, "--json", "check-amplifiers", KESTRIX_AMPLIFIERS});
    EXPECT_EQ(result.exitCode, 0) << result.out;
    const auto json = Json::parse(result.out);
    EXPECT_GE(json["registered"], 4);
    for (const auto& file : json["files"]) {
        EXPECT_EQ(file["problems"].size(), 0u) << file.dump(2);
    }
    const auto bridge = json["files"][0];
    EXPECT_EQ(bridge["file"], "bridge.json");
    EXPECT_EQ(bridge["class"], "ampl_bridge");
    EXPECT_EQ(bridge["identifier"], "2.1.3.2");
    EXPECT_EQ(bridge["measurements"][0]["ranges"], (Json{"10", "5", "2", "1"}));
    EXPECT_EQ(bridge["measurements"][1]["unit"], "V");
    EXPECT_EQ(bridge["measurements"][2]["name"], "Potentiometer");
}

TEST(CheckAmplifiers, EachMistakeHasItsPlace) {
    struct Case {
        const char* file;
        std::string text;
        const char* outcome;
        const char* words;
        int line;  // 0: none
        int column;
    };
    const std::string range =
        R"(, {"name": "Range", "type": "int", "selection": true, "default": 0, "unit": "V", "values": [
    )";
    const Case cases[] = {
        {"comma.json", "{\"__type\": \"PropertyObjectClass\",\n \"name\": \"x\",,}", "not registered", "Bad JSON", 2,
         14},
        {"empty.json", "", "not registered", "Bad JSON", 1, 1},
        {"number.json", "[1, 2]", "not registered", "no class", 1, 1},
        {"other.json", R"({"className": "RangeItem", "propValues": {}})", "not registered", "no class", 1, 1},
        {"key.json", definition("a1", "1.1.1.1", ",\n  {\"name\": \"X\", \"type\": \"int\", \"selektion\": true}"),
         "not registered", "selektion", 5, 32},
        {"twice.json", "{\"__type\": \"PropertyObjectClass\",\n\"name\": \"x\", \"name\": \"y\", \"properties\": []}",
         "not registered", "twice", 2, 14},
        {"no-id.json", "{\"__type\": \"PropertyObjectClass\", \"name\": \"a2\",\n \"properties\": []}",
         "not registered", "AmplifierID", 2, 2},
        {"no-class.json", "{\"name\": \"a3\", \"properties\": []}", "not registered", "name", 1, 2},
        {"expression.json",
         definition("a4", "1.1.1.2",
                    ", {\"name\": \"X\", \"type\": \"int\", \"default\": 0,\n \"visible\": {\"__type\": \"Eval\", "
                    "\"expr\": \"$X = 0\"}}"),
         "not registered", "unexpected \"=\"", 5, 2},
        {"taken.json", definition("channel", "1.1.1.3"), "not registered", "already exists", 1, 35},
        {"same-a.json", definition("a5", "1.1.1.4"), "registered", "also in \"same-b.json\"", 0, 0},
        {"same-b.json", definition("a6", "1.1.1.4"), "registered", "also in \"same-a.json\"", 0, 0},
        {"item.json",
         definition("a7", "1.1.1.5",
                    range + R"({"className": "RangeItem", "propValues": {"DisplayName": "10", "Min": -10.0}}]})"),
         "shown as unknown", "range 0 of \"Range\"", 5, 5},
        {"type.json",
         definition("a8", "1.1.1.6", ", {\"name\": \"LPFilter\", \"type\": \"string\", \"default\": \"Off\"}"),
         "shown as unknown", "\"LPFilter\" must be a selection", 4, 24},
        {"case.json", definition("a9", "1.1.1.7", ", {\"name\": \"LpFilter\", \"type\": \"int\", \"default\": 0}"),
         "registered", "\"LPFilter\" is", 4, 4},
        {"part.json", definition("a10", "1.1.1.8", ", {\"name\": \"ReadTeds\", \"type\": \"func\"}"), "registered",
         "none of the others works", 4, 3},
        {"offset.json",
         definition(
             "a13", "1.1.2.2",
             R"(, {"name": "Measurement", "type": "int", "selection": true, "default": 0, "values": ["Bridge"]})" +
                 range + R"({"className": "RangeItem", "propValues": {"DisplayName": "1", "Min": -1, "Max": 1}}]})" +
                 ",\n{\"name\": \"BridgeOffset\", \"type\": \"float\", \"default\": 0.0, \"unit\": \"mV/V\"}"),
         "registered", "the offset has that of the ranges", 6, 59},
        {"UPPER.JSON", definition("a11", "1.1.1.9"), "not read", "small letters", 0, 0},
        {"notes.txt", "", "not read", "doesn't end", 0, 0},
        {"sub/inside.json", definition("a12", "1.1.2.1"), "not read", "folder", 0, 0},
    };
    const Folder folder;
    for (const auto& item : cases) {
        folder.write(item.file, item.text);
    }
    std::filesystem::create_symlink("nowhere", folder.path("dangling.json"));
    const auto result = Process::run({KESTRIX_ZORNHOST, "--json", "check-amplifiers", folder.path()});
    EXPECT_EQ(result.exitCode, 1);
    const auto json = Json::parse(result.out);
    EXPECT_EQ(json["files"].size(), std::size(cases) + 1);
    for (const auto& item : cases) {
        SCOPED_TRACE(item.file);
        const std::string name = std::string(item.file).substr(0, std::string(item.file).find('/'));
        const auto& files = json["files"];
        const auto found =
            std::find_if(files.begin(), files.end(), [&](const Json& file) { return file["file"] == name; });
        ASSERT_NE(found, files.end());
        EXPECT_EQ((*found)["outcome"], item.outcome) << found->dump(2);
        EXPECT_NE(found->dump().find(Json(item.words).dump().substr(1, Json(item.words).dump().size() - 2)),
                  std::string::npos)
            << found->dump(2);
        if (item.line > 0) {
            ASSERT_GE((*found)["problems"].size(), 1u);
            const auto& problems = (*found)["problems"];
            EXPECT_TRUE(std::any_of(problems.begin(), problems.end(), [&](const Json& problem) {
                return problem.value("line", 0) == item.line && problem.value("column", 0) == item.column;
            })) << found->dump(2);
        }
    }
    // For people: one line for each file, the mistakes below it as FILE:LINE:COLUMN.
    const auto text = Process::run({KESTRIX_ZORNHOST, "check-amplifiers", folder.path()});
    for (const char* words :
         {"key.json: not registered\n    key.json:5:32: ", "UPPER.JSON: not read: ", "dangling.json: not registered",
          "item.json: a7 for amplifier 1.1.1.5 (Mine), shown as unknown", "21 entries: 5 registered"}) {
        EXPECT_NE(text.out.find(words), std::string::npos) << text.out;
    }

    for (const char* name : {"no-such-folder", "notes.txt"}) {
        const auto nothing = Process::run({KESTRIX_ZORNHOST, "check-amplifiers", folder.path(name)});
        EXPECT_EQ(nothing.exitCode, 1);
        EXPECT_NE(nothing.err.find(name), std::string::npos);
    }
}
