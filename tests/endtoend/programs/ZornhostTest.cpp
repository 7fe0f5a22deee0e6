#include <gtest/gtest.h>
#include <sys/resource.h>

#include <nlohmann/json.hpp>

#include "tests/endtoend/RecordingReader.h"
#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

Process::Result zornhost(std::vector<std::string> arguments) {
    return Process::run(Process::zornhost(std::move(arguments)));
}

// A recording that runs until it is told to end, and has run for a second.
class LongRecording : public Process {
public:
    explicit LongRecording(const std::string& file)
        : Process(zornhost({"record", "-o", file, "-d", "600", "--rate", "50000"})) {
        for (int i = 0; i < 1500 && errors().find("recording: ") == std::string::npos; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
};

}  // namespace

TEST(Zornhost, ShowsTheInstrument) {
    const auto info = zornhost({"--json", "info"});
    ASSERT_EQ(info.exitCode, 0) << info.err;
    const auto json = Json::parse(info.out);
    EXPECT_EQ(json["host"]["CoreTypes"], "1.1.0");
    EXPECT_EQ(json["module"]["driver"], "Harvane Daq Module");
    EXPECT_EQ(json["instrument"]["Manufacturer"], "Harvane");
    EXPECT_EQ(json["instrument"]["Model"], "KESTRIX");

    const auto tree = zornhost({"tree"});
    ASSERT_EQ(tree.exitCode, 0) << tree.err;
    for (const char* name :
         {"Measurement system", "KESTRIX", "Analog inputs", "AI 1", "AI 8", "Raw input", "Filtered input"}) {
        EXPECT_NE(tree.out.find(name), std::string::npos) << name;
    }
}

TEST(Zornhost, ReadsAndSetsProperties) {
    const auto list = zornhost({"--json", "list", "KESTRIX"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    const auto properties = Json::parse(list.out)["properties"];
    std::vector<std::string> names;
    for (const auto& property : properties) {
        names.push_back(property["name"]);
    }
    for (const char* name : {"SerialNumber", "SampleRate", "BaseClock"}) {
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    }

    EXPECT_EQ(zornhost({"get", "SampleRate"}).out, "1000\n");
    // 48000 doesn't divide 15 MHz: what was asked for and what was set.
    const auto set = zornhost({"set", "SampleRate", "48000"});
    EXPECT_EQ(set.exitCode, 0) << set.err;
    EXPECT_EQ(set.out, "SampleRate: 48000 requested, 46875 set\n");
    EXPECT_NE(set.err.find("Sample rate was set to 48000, adjusted to 46875"), std::string::npos) << set.err;
}

TEST(Zornhost, WrongNamesAndValuesAreExplained) {
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> words;
    };
    const Case cases[] = {
        {{"list", "KESTRIX/Digital inputs"}, {"Digital inputs", "Analog inputs"}},
        {{"get", "KESTRIX/SampleRat"}, {"SampleRat", "SampleRate"}},
        {{"set", "KESTRIX/SerialNumber", "12"}, {"SerialNumber", "read-only"}},
        {{"set", "SampleRate", "fast"}, {"SampleRate"}},
        {{"set", "SampleRate", "99999999"}, {"SampleRate", "15000000"}},
        {{"set", "KESTRIX/BaseClock", "7"}, {"BaseClock"}},
        {{"get", "SampleRate[1]"}, {"SampleRate[1]", "not a list"}},
        {{"record", "-o", "/nowhere/x.h5", "-d", "1"}, {"/nowhere/x.h5", "No such file"}},
        {{"record", "-o", "/", "-d", "1"}, {"/: is a folder"}},
        {{"record", "-o", "/dev/zero", "-d", "1"}, {"/dev/zero: is a character device", "/dev/null"}},
        {{"record", "-o", "", "-d", "1"}, {"has no name"}},
        {{"record", "-o", "/tmp/x.h5", "-d", "1", "--channel", "AI 9/*"}, {"AI 9/*", "AI 1/Raw input"}},
        {{"--module", "/nowhere.zmod", "info"}, {"/nowhere.zmod"}},
        {{"--module", "/etc/hostname", "info"}, {"/etc/hostname"}},
        {{"--log", "loud", "info"}, {"loud", "verbose"}},
    };
    for (const auto& entry : cases) {
        const auto result = zornhost(entry.arguments);
        EXPECT_EQ(result.exitCode, 1) << entry.arguments[0];
        EXPECT_EQ(result.out, "");
        for (const auto& word : entry.words) {
            EXPECT_NE(result.err.find(word), std::string::npos) << word << " in " << result.err;
        }
    }
    // A command line that can't be meant.
    const Case unclear[] = {
        {{}, {"subcommand is required"}},
        {{"recrod"}, {"no command \"recrod\"", "record"}},
        {{"record", "-d", "1"}, {"--output is required"}},
        {{"record", "-o", "/dev/null", "-d", "nan"}, {"\"nan\" is no number of seconds"}},
        {{"record", "-o", "/dev/null", "-d", "1", "--rate", "1.5"}, {"--rate", "1.5"}},
    };
    for (const auto& entry : unclear) {
        const auto result = zornhost(entry.arguments);
        EXPECT_EQ(result.exitCode, 2) << result.err;
        for (const auto& word : entry.words) {
            EXPECT_NE(result.err.find(word), std::string::npos) << word << " in " << result.err;
        }
    }
}

// On a machine without the instrument the program says so and ends.
TEST(Zornhost, WithoutAnInstrumentSaysWhatIsMissing) {
    const auto result = Process::run({KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "tree"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("Failed to open device handle."), std::string::npos) << result.err;
}

// With a file and without one: the same samples are taken, the same report comes out.
TEST(Zornhost, RecordsAndReports) {
    const Folder folder;
    std::vector<Json> reports;
    for (const std::string& file : {folder.path("run.h5"), std::string("/dev/null")}) {
        SCOPED_TRACE(file);
        const bool kept = file != "/dev/null";
        const auto result =
            zornhost({"--json", "record", "-o", file, "-d", "1", "--rate", "10000", "--channel", "AI 1/*"});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const Json& json = reports.emplace_back(Json::parse(result.out));
        EXPECT_EQ(json["channels"].size(), 2u);
        EXPECT_EQ(json["lost"], 0);
        EXPECT_EQ(json["written"], kept);
        EXPECT_TRUE(json["good"]);
        EXPECT_GT(json["channels"][0]["samples"], 8000);
        EXPECT_EQ(json["verdict"].get<std::string>().find("Nothing was written") == std::string::npos, kept);
    }
    for (const auto& [key, value] : reports[0].items()) {
        EXPECT_TRUE(reports[1].contains(key)) << key;
    }
    EXPECT_EQ(reports[0].size(), reports[1].size());
    const RecordingReader recording(folder.path("run.h5"));
    EXPECT_EQ(recording.channels().size(), 2u);
    EXPECT_EQ(recording.text("", "manufacturer"), "Harvane");
    EXPECT_EQ(recording.text("", "verdict"), reports[0]["verdict"]);
    EXPECT_EQ(recording.count(recording.channels()[1]), reports[0]["channels"][0]["samples"]);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

TEST(Zornhost, SignalsEndARecordingCleanly) {
    const Folder folder;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(signal);
        const std::string file = folder.path(std::to_string(signal) + ".h5");
        LongRecording process(file);
        const auto asked = std::chrono::steady_clock::now();
        process.signal(signal);
        const auto result = process.wait(30);
        EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(15));
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.out.find("Ended by the user."), std::string::npos) << result.out;
        const RecordingReader recording(file);
        EXPECT_EQ(recording.number("", "complete"), 1.0);
        EXPECT_GT(recording.count(recording.channels()[0]), 1000u);
    }
}

// A second recording into the same file must not touch it, and what is killed can be read.
TEST(Zornhost, RunningRecordingIsLeftAloneAndReadableAfterAKill) {
    const Folder folder;
    const std::string file = folder.path("killed.h5");
    LongRecording process(file);
    const auto second = zornhost({"record", "-o", file, "-d", "0.2"});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_NE(second.err.find(file + ": another program has it open"), std::string::npos) << second.err;
    process.signal(SIGKILL);
    EXPECT_EQ(process.wait(30).exitCode, 128 + SIGKILL);
    const RecordingReader recording(file);
    EXPECT_EQ(recording.number("", "complete"), 0.0);
    const auto channels = recording.channels();
    ASSERT_EQ(channels.size(), 16u);
    for (const auto& channel : channels) {
        const bool filtered = channel.ends_with("Filtered input");
        EXPECT_GT(filtered ? recording.samples<int32_t>(channel).size() : recording.samples<int16_t>(channel).size(),
                  20000u)
            << channel;
    }
}

// A file system that takes no more ends the recording with a reason; what is said to be written is there.
TEST(Zornhost, FullDiskIsNamed) {
    const Folder folder;
    rlimit old{};
    ::getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 20 << 20;
    ::setrlimit(RLIMIT_FSIZE, &small);
    Process process(
        Process::zornhost({"--json", "record", "-o", folder.path("full.h5"), "-d", "20", "--rate", "500000"}));
    ::setrlimit(RLIMIT_FSIZE, &old);
    const auto result = process.wait(60);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err.find("HDF5"), std::string::npos) << result.err;
    const Json json = Json::parse(result.out);
    const std::string verdict = json["verdict"];
    EXPECT_NE(verdict.find("ENDED EARLY: " + folder.path("full.h5")), std::string::npos) << verdict;
    EXPECT_NE(verdict.find("File too large"), std::string::npos) << verdict;
    EXPECT_FALSE(json["good"]);
    const RecordingReader recording(folder.path("full.h5"));
    EXPECT_EQ(recording.number("", "complete"), 0.0);
    const std::string first = json["channels"][0]["path"];
    EXPECT_GT(json["channels"][0]["samples"], 0);
    EXPECT_EQ(recording.samples<int16_t>(first).size(), json["channels"][0]["samples"]);
    EXPECT_EQ(json["gaps"][0]["firstIndex"], json["channels"][0]["samples"]) << "what came later counts as lost";
}

// Where nobody takes the progress the recording goes on; where nobody takes the report the exit code says so.
TEST(Zornhost, OutputsThatCannotBeWritten) {
    const Folder folder;
    const auto command = [&](const std::string& redirections) {
        std::string text = "exec";
        for (const auto& argument : Process::zornhost({"record", "-o", folder.path("run.h5"), "-d", "1.2"})) {
            text += " '" + argument + "'";
        }
        return Process::run({"/bin/sh", "-c", text + " " + redirections});
    };
    const auto silent = command("2>/dev/full");
    EXPECT_EQ(silent.exitCode, 0) << silent.out;
    EXPECT_NE(silent.out.find("none lost"), std::string::npos) << silent.out;
    for (const char* redirections : {">/dev/full", ">&-", ">&- <&-"}) {
        const auto unread = command(redirections);
        EXPECT_EQ(unread.exitCode, 1) << redirections;
        EXPECT_NE(unread.err.find("the standard output can't be written"), std::string::npos) << unread.err;
    }
    EXPECT_EQ(RecordingReader(folder.path("run.h5")).number("", "complete"), 1.0);
}

TEST(Zornhost, MonitorsAndEndsByItself) {
    const auto result =
        zornhost({"--json", "monitor", "-d", "1.2", "--interval", "0.5", "--rate", "20000", "--channel", "AI 1/*"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::istringstream lines(result.out);
    std::string line;
    int tables = 0;
    while (std::getline(lines, line)) {
        const auto json = Json::parse(line);
        EXPECT_EQ(json["channels"].size(), 2u);
        ++tables;
    }
    EXPECT_GE(tables, 2);
}

// The clock is the instrument's, whichever program has set it; one that is not known is shown as such and refuses a
// recording in words.
TEST(Zornhost, TakesTheClockThatTheInstrumentHas) {
    const Folder folder;
    const auto with = [&](const std::string& pll, std::vector<std::string> arguments) {
        folder.write("clock.json", R"({"slots": 1, "supplyOn": true, "pll": )" + pll + "}");
        arguments.insert(arguments.begin(),
                         {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--simulate", folder.path("clock.json")});
        return Process::run(arguments);
    };
    EXPECT_NE(with(R"({"selection": 1})", {"tree"}).out.find("base clock 10000000 Hz"), std::string::npos);
    const std::string none = R"({"lock0": false}, "faults": [{"kind": "scriptRefuses", "times": -1}])";
    EXPECT_NE(with(none, {"tree"}).out.find("base clock unknown"), std::string::npos);
    EXPECT_EQ(with(none, {"--json", "rates"}).exitCode, 0);
    const auto recording = with(none, {"record", "-d", "1", "-o", folder.path("none.h5")});
    EXPECT_EQ(recording.exitCode, 1);
    EXPECT_NE(recording.err.find("The sampling clock is unknown"), std::string::npos) << recording.err;
}

// The simulated instrument serves any program, and the program's exit code is what comes back.
TEST(KestrixSim, RunsAnyProgram) {
    const auto read = Process::run({KESTRIX_SIM, "run", "--", "/bin/cat", "/sys/class/net/eth0/address"});
    EXPECT_EQ(read.exitCode, 0) << read.err;
    EXPECT_EQ(std::count(read.out.begin(), read.out.end(), ':'), 5) << read.out;
    EXPECT_EQ(Process::run({KESTRIX_SIM, "run", "--", "/bin/sh", "-c", "exit 7"}).exitCode, 7);
    // A sanitizer's run time must stand in front of what is preloaded.
    std::vector<std::string> arguments{KESTRIX_SIM, "run"};
    if (const std::string first = KESTRIX_PRELOAD_FIRST; !first.empty()) {
        arguments.insert(arguments.end(), {"--preload-first", first});
    }
    arguments.insert(arguments.end(), {"--", KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "get", "KESTRIX/Model"});
    const auto host = Process::run(arguments);
    EXPECT_EQ(host.exitCode, 0) << host.err;
    EXPECT_EQ(host.out, "KESTRIX\n");
}
