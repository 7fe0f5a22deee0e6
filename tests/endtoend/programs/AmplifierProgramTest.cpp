#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tests/endtoend/Definition.h"
#include "tests/endtoend/programs/Process.h"

// `zornhost amplifier` and `zornhost check-amplifiers` as a user types them.
using Json = nlohmann::json;

namespace {

// A voltage, a bridge and a slot without an amplifier.
const Folder& scenarios() {
    static const Folder folder;
    if (!std::filesystem::exists(folder.path("iepe.json"))) {
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
    }
    return folder;
}

Process::Result run(const std::string& scenario, std::vector<std::string> arguments) {
    return Process::run(Process::zornhostOn(scenarios().path(scenario), std::move(arguments)));
}
Process::Result amplifier(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "amplifier");
    return run("three.json", std::move(arguments));
}

void expectWords(const std::string& text, const std::vector<std::string>& words) {
    for (const auto& each : words) {
        EXPECT_NE(text.find(each), std::string::npos) << each << " in\n" << text;
    }
}

const Json* named(const Json& list, const std::string& name, const char* key = "name") {
    const auto found = std::find_if(list.begin(), list.end(), [&](const Json& item) { return item[key] == name; });
    return found == list.end() ? nullptr : &*found;
}

}  // namespace

TEST(AmplifierProgram, ShowsIdentitySettingsAndScale) {
    const auto shown = run("three.json", {"--json", "amplifier", "AI 2"});
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
        const auto text = amplifier({path});
        EXPECT_EQ(text.exitCode, 0) << text.err;
        expectWords(text.out, {"Fast voltage", "1.0.1.1", "10, 5, 1, 0.1", "Differential"});
    }
}

TEST(AmplifierProgram, SetsByTextAndByPlace) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"AI 1", "set", "Range", "5 V"}, "Range: 5 V\n"},
        {{"AI 1", "set", "Range", "1"}, "Range: 1 V\n"},  // a choice's text comes before a place
        {{"AI 1", "set", "Range", "#1"}, "Range: 5 V\n"},
        {{"AI 1", "set", "Range", "3", "Short", "on"}, "Range: 0.1 V\nShort: on\n"},
        {{"AI 2", "set", "Measurement", "Voltage", "Range", "1 V"}, "Measurement: Voltage\nRange: 1 V\n"},
        {{"AI 2", "set", "Excitation", "2.5 V", "InputType", "Half bridge"},
         "Excitation: 2.5 V\nInputType: Half bridge\n"},
        {{"AI 3", "set", "Excitation", "8 mA"}, "Excitation: 8 mA\n"},
    };
    for (const auto& [arguments, printed] : cases) {
        const auto result = amplifier(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out, printed);
    }
    // A setting that stands before a recording acts in it.
    const auto shown =
        run("three.json", {"--json", "--set", "KESTRIX/Analog inputs/AI 1/Raw input/Range=1 V", "amplifier", "AI 1"});
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_EQ(Json::parse(shown.out)["channels"][1]["rangeMax"], 1.0);
}

TEST(AmplifierProgram, SaysWhatTheAmplifierDidNotTake) {
    // Identity and first settings are 20 requests; the next one is the range.
    const auto result = run("refusing.json", {"--json", "amplifier", "AI 1", "set", "Range", "1 V"});
    EXPECT_EQ(result.exitCode, 1);
    const auto json = Json::parse(result.out);
    EXPECT_EQ(json["taken"], false);
    EXPECT_EQ(json["settings"][0]["requested"], "1 V");
    EXPECT_EQ(json["settings"][0]["text"], "10 V");
    expectWords(result.err, {"Range: "});
    const auto text = amplifier({"AI 3", "set", "Excitation", "6"});
    EXPECT_EQ(text.exitCode, 1);
    expectWords(text.out, {"Excitation: 6 mA requested, 4 mA set"});
    expectWords(text.err, {"has not taken all settings: Update: refused"});
}

// A recording says so before it starts and by its exit code.
TEST(AmplifierProgram, ARecordingSaysWhatTheAmplifierHasNotTaken) {
    // With what was asked in vain; none: all is taken.
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"Range=5 V", "Excitation=8"}, nullptr},
        {{"Range=5 V", "Excitation=6"}, "Range 5 V, Excitation 6 mA"},
        // A coupling that only the other measurement has.
        {{"Measurement=Voltage", "HPFilter=#2", "Measurement=IEPE"}, "HPFilter choice 2, which is not in the list"},
    };
    const Folder folder;
    for (const auto& [settings, asked] : cases) {
        const bool good = asked == nullptr;
        SCOPED_TRACE(good ? "taken" : asked);
        const auto with = [&, all = settings](const std::vector<std::string>& command) {
            std::vector<std::string> arguments;
            for (const auto& setting : all) {
                arguments.insert(arguments.end(), {"--set", "KESTRIX/Analog inputs/AI 1/Raw input/" + setting});
            }
            arguments.insert(arguments.end(), command.begin(), command.end());
            auto result = run("iepe.json", arguments);
            EXPECT_EQ(result.exitCode, good ? 0 : 1) << result.err;
            return result;
        };
        const auto recorded = with({"--json", "record", "-o", folder.path("run.h5"), "-d", "0.5"});
        EXPECT_EQ(recorded.err.find("AI 1: the amplifier has not taken all settings: ") == std::string::npos, good)
            << recorded.err;
        const auto json = Json::parse(recorded.out);
        EXPECT_EQ(json["good"], good);
        ASSERT_EQ(json["refusedSettings"].size(), good ? 0u : 1u);
        EXPECT_TRUE(good || json["refusedSettings"][0]["asked"] == asked) << json;

        // What stood there stays when nothing is recorded.
        folder.write("kept.h5", "kept");
        with({"record", "--strict", "-o", folder.path("kept.h5"), "-d", "0.2"});
        EXPECT_EQ(std::filesystem::file_size(folder.path("kept.h5")) == 4, !good);

        const auto watched = with({"--json", "monitor", "-d", "0.2", "--interval", "0.2"}).out;
        EXPECT_EQ(Json::parse(watched.substr(0, watched.find('\n')))["refusedSettings"].size(), good ? 0u : 1u);
    }
}

TEST(AmplifierProgram, BalancesReadsTedsAndStatus) {
    const auto asJson = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--json", "amplifier", "AI 2"});
        const auto result = run("three.json", arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return Json::parse(result.out);
    };
    const auto balanced = asJson({"balance"});
    EXPECT_EQ(balanced["balanced"], true);
    EXPECT_NEAR(balanced["valueBefore"], 0.5, 0.001);
    EXPECT_NEAR(balanced["offset"], -0.5, 0.001);
    EXPECT_NEAR(balanced["valueAfter"], 0.0, 0.001) << "the offset acts on what is shown";
    EXPECT_EQ(balanced["unit"], "mV/V");
    expectWords(amplifier({"AI 2", "balance"}).out, {" mV/V; bridge offset 0 -> -0.5 mV/V"});

    const auto teds = asJson({"teds"});
    EXPECT_EQ(teds["bytes"].size(), 8u);
    EXPECT_EQ(teds["checkIsRight"], true);
    const auto custom = asJson({"teds", "--custom"});
    EXPECT_EQ(custom["bytes"].size(), 32u);
    EXPECT_EQ(custom["empty"], true);
    EXPECT_EQ(amplifier({"AI 2", "sensor-status"}).out, "AI 2/Raw input: ok\n");
    EXPECT_EQ(amplifier({"AI 3", "sensor-status"}).out, "AI 3/Raw input: open\n");
    const auto none = run("no-chip.json", {"amplifier", "AI 1", "teds"});
    EXPECT_EQ(none.exitCode, 1);
    expectWords(none.err, {"no chip"});
}

TEST(AmplifierProgram, MistakesAreExplained) {
    using Texts = std::vector<std::string>;
    const std::pair<Texts, Texts> cases[] = {
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
    for (const auto& [arguments, words] : cases) {
        const auto result = amplifier(arguments);
        EXPECT_TRUE(result.exitCode > 0 && result.exitCode < 128) << arguments[0] << ": " << result.exitCode;
        EXPECT_EQ(result.out, "");
        expectWords(result.err, words);
    }
    const auto folder = Process::run(
        {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--simulate", "--amplifiers", "/nowhere", "amplifier", "AI 1"});
    EXPECT_EQ(folder.exitCode, 1);
    expectWords(folder.err, {"/nowhere"});
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
    const std::string range =
        R"(, {"name": "Range", "type": "int", "selection": true, "default": 0, "unit": "V", "values": [
    )";
    // The file, its text, what becomes of it, what is said, and at which line and column; line 0: none.
    const std::tuple<const char*, std::string, const char*, const char*, int, int> cases[] = {
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
    for (const auto& row : cases) {
        folder.write(std::get<0>(row), std::get<1>(row));
    }
    std::filesystem::create_symlink("nowhere", folder.path("dangling.json"));
    const auto result = Process::run({KESTRIX_ZORNHOST, "--json", "check-amplifiers", folder.path()});
    EXPECT_EQ(result.exitCode, 1);
    const auto json = Json::parse(result.out);
    EXPECT_EQ(json["files"].size(), std::size(cases) + 1);
    for (const auto& [file, written, outcome, words, line, column] : cases) {
        SCOPED_TRACE(file);
        const std::string path = file;
        const Json* found = named(json["files"], path.substr(0, path.find('/')), "file");
        ASSERT_NE(found, nullptr);
        EXPECT_EQ((*found)["outcome"], outcome) << found->dump(2);
        const std::string quoted = Json(words).dump();
        expectWords(found->dump(), {quoted.substr(1, quoted.size() - 2)});
        const Json place = Json::array({line, column});
        std::vector<Json> places;
        for (const Json& problem : (*found)["problems"]) {
            places.push_back(Json::array({problem.value("line", 0), problem.value("column", 0)}));
        }
        EXPECT_TRUE(line == 0 || std::ranges::count(places, place) > 0) << found->dump(2);
    }
    // For people: one line for each file, the mistakes below it as FILE:LINE:COLUMN.
    const auto text = Process::run({KESTRIX_ZORNHOST, "check-amplifiers", folder.path()});
    expectWords(text.out, {"key.json: not registered\n    key.json:5:32: ", "UPPER.JSON: not read: ",
                           "dangling.json: not registered", "21 entries: 5 registered",
                           "item.json: a7 for amplifier 1.1.1.5 (Mine), shown as unknown"});

    for (const char* name : {"no-such-folder", "notes.txt"}) {
        const auto nothing = Process::run({KESTRIX_ZORNHOST, "check-amplifiers", folder.path(name)});
        EXPECT_EQ(nothing.exitCode, 1);
        EXPECT_NE(nothing.err.find(name), std::string::npos);
    }
}
