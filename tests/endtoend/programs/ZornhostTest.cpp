#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <cstring>

#include <nlohmann/json.hpp>

#include "tests/endtoend/RecordingReader.h"
#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

Process::Result zornhost(std::vector<std::string> arguments, const std::string& faults = "") {
    return Process::run(Process::zornhost(std::move(arguments), faults));
}

// A recording that runs until it is told to end, and has run for a second.
class LongRecording : public Process {
public:
    explicit LongRecording(const std::string& file, std::vector<std::string> options = {})
        : Process(zornhost(with(std::move(options), {"record", "-o", file, "-d", "600", "--rate", "50000"}))) {
        for (int i = 0; i < 1500 && errors().find("recording: ") == std::string::npos; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

private:
    static std::vector<std::string> with(std::vector<std::string> options, const std::vector<std::string>& command) {
        options.insert(options.end(), command.begin(), command.end());
        return options;
    }
};

std::string lineWith(const std::string& text, const std::string& words) {
    for (const auto& line : linesOf(text)) {
        if (line.find(words) != std::string::npos) {
            return line;
        }
    }
    return {};
}

// Whether a process hands its descriptor of this file to the programs that it starts.
bool inheritable(pid_t pid, const std::string& file) {
    const std::string proc = "/proc/" + std::to_string(pid);
    for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == file) {
            std::ifstream info(proc + "/fdinfo/" + entry.path().filename().string());
            std::string name;
            unsigned long flags = 0;
            while (info >> name && name != "flags:") {
            }
            info >> std::oct >> flags;
            return (flags & O_CLOEXEC) == 0;
        }
    }
    throw std::runtime_error("the process doesn't have " + file);
}

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

TEST(Zornhost, ListsProperties) {
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
        {{"get", "Sample\nRate\n"}, {"Sample Rate"}},
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
        EXPECT_TRUE(result.err.ends_with(lineWith(result.err, "zornhost: ") + "\n")) << result.err;
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
    const Folder folder;
    const auto result =
        Process::run({KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--lock", folder.path("instrument.lock"), "tree"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("Failed to open device handle."), std::string::npos) << result.err;
    EXPECT_TRUE(std::filesystem::exists(folder.path("instrument.lock"))) << "no instrument is known to be simulated";
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
    EXPECT_EQ(recording.text("", "verdict"), reports[0]["verdict"].get<std::string>());
    EXPECT_EQ(recording.count(recording.channels()[1]), reports[0]["channels"][0]["samples"]);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

// Whatever the instrument follows, the first sample is the first one and all others come after it.
TEST(Zornhost, EachSynchronizationDeliversTheSameSamples) {
    const Folder folder;
    folder.write("counters.json", R"({"slots": 1, "supplyOn": true, "timeFactor": 4, "oscillatorErrorPpm": 12.0,
        "modules": [{"slot": 0, "waveform": {"kind": "counter"}}]})");
    const std::string simulate = "--simulate=" + folder.path("counters.json");
    const auto list = Process::run({KESTRIX_ZORNHOST, simulate, "--json", "sync", "list"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    std::vector<std::string> names;
    for (const Json& option : Json::parse(list.out)) {
        names.push_back(option["name"]);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Standalone", "PTP out", "IRIG", "PPS", "PTP"}));
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const std::string file = folder.path(name + ".h5");
        const auto result =
            Process::run({KESTRIX_ZORNHOST, simulate, "--sync", name, "record", "-o", file, "-d", "2.5"});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out.find("phase error"), std::string::npos) << result.out;
        const RecordingReader recording(file);
        for (const auto& channel : recording.channels()) {
            std::vector<int32_t> samples;
            if (channel.ends_with("Filtered input")) {
                samples = recording.samples<int32_t>(channel);
            } else {
                for (const int16_t sample : recording.samples<int16_t>(channel)) {
                    samples.push_back(sample);
                }
            }
            EXPECT_GT(samples.size(), 500u) << channel;
            for (size_t n = 0; n < samples.size(); ++n) {
                ASSERT_EQ(samples[n], static_cast<int32_t>(n)) << channel;
            }
        }
    }
    const auto wrong = Process::run({KESTRIX_ZORNHOST, simulate, "--sync", "GPS", "sync", "list"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_NE(wrong.err.find("it has 1 \"Standalone\", 2 \"PTP out\""), std::string::npos) << wrong.err;
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

// The instrument is one, and a second program would end what the first one does with it.
TEST(Zornhost, OneProcessHoldsTheInstrument) {
    const Folder folder;
    const std::string lock = folder.path("instrument.lock");
    LongRecording first(folder.path("first.h5"), {"--lock", lock});
    const std::string pid = std::to_string(first.pid());
    EXPECT_FALSE(inheritable(first.pid(), lock));
    // By the option and by the environment, and with a simulated instrument of its own.
    auto asked = Process::zornhost({"info"});
    asked.insert(asked.begin(), {"/usr/bin/env", "KESTRIX_LOCK=" + lock});
    for (const auto& second : {zornhost({"--lock", lock, "--json", "info"}), Process::run(asked)}) {
        EXPECT_EQ(second.exitCode, 3);
        EXPECT_EQ(second.out, "");
        EXPECT_EQ(std::count(second.err.begin(), second.err.end(), '\n'), 1) << second.err;
        for (const auto& words :
             {"held by process " + pid + " since 2", std::string("first.h5"), "\"kill " + pid + "\""}) {
            EXPECT_NE(second.err.find(words), std::string::npos) << words << " in: " << second.err;
        }
    }
    EXPECT_EQ(zornhost({"get", "SampleRate"}).exitCode, 0) << "another instrument";
    EXPECT_EQ(Process::run({KESTRIX_ZORNHOST, "--lock", lock, "check-amplifiers", KESTRIX_AMPLIFIERS}).exitCode, 0)
        << "needs no instrument";
    EXPECT_EQ(first.errors().find("LOST"), std::string::npos);

    first.signal(SIGKILL);
    first.wait(30);
    EXPECT_TRUE(std::filesystem::exists(lock));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(zornhost({"--lock", lock, "get", "SampleRate"}).out, "1000\n");
        EXPECT_EQ(std::filesystem::file_size(lock), 0u) << "nobody holds it";
    }
}

// Without a word of the user: the one lock of this machine for what may be its instrument, none for a simulated one.
TEST(Zornhost, InstrumentOfThisMachineHasOneLock) {
    const char* file = "/run/lock/kestrix.lock";
    zornhost({"--lock", file, "info"});  // leaves the file, for whoever comes next
    const int descriptor = ::open(file, O_RDWR | O_CLOEXEC);
    ASSERT_GE(descriptor, 0) << file << ": " << std::strerror(errno);
    ASSERT_EQ(::flock(descriptor, LOCK_EX), 0);
    // A process that has not said who it is yet, and one whose predecessor was killed.
    for (const std::string text : {"", "pid 999999999\nsince yesterday\ncommand zornhost\n"}) {
        ASSERT_EQ(::ftruncate(descriptor, 0), 0);
        ASSERT_EQ(::pwrite(descriptor, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        const auto refused = Process::run({KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "tree"});
        EXPECT_EQ(refused.exitCode, 3) << refused.err;
        EXPECT_EQ(refused.err,
                  "zornhost: another process holds the instrument (/run/lock/kestrix.lock is locked): wait "
                  "until it has ended\n");
    }
    EXPECT_EQ(zornhost({"get", "SampleRate"}).exitCode, 0);
    ASSERT_EQ(::ftruncate(descriptor, 0), 0);
    ::close(descriptor);
}

TEST(Zornhost, LockFilesThatCannotBeSayWhatToDo) {
    const Folder folder;
    folder.write("notes.txt", "my notes");
    std::filesystem::create_symlink(folder.path("notes.txt"), folder.path("link.lock"));
    const std::pair<std::string, const char*> cases[] = {
        {folder.path("notes.txt"), "is no lock file"},
        {folder.path("link.lock"), "symbolic links"},
        {folder.path("no/such/folder.lock"), "No such file"},
        {folder.path(), "Is a directory"},
        {"/dev/null", "is no lock file"},
    };
    for (const auto& [file, reason] : cases) {
        const auto result = zornhost({"--lock", file, "info"});
        EXPECT_EQ(result.exitCode, 1) << file;
        EXPECT_EQ(result.out, "");
        const std::string line = lineWith(result.err, file);
        EXPECT_NE(line.find(reason), std::string::npos) << result.err;
        EXPECT_NE(line.find("--lock or KESTRIX_LOCK"), std::string::npos) << result.err;
    }
    EXPECT_EQ(contents(folder.path("notes.txt")), "my notes");
}

// However short it was, with a file or without one: what brought nothing is no good recording.
// Nor is a look at it.
TEST(Zornhost, RecordingThatTookNothingFails) {
    const Folder folder;
    const std::string stall = R"({"kind": "dmaStall", "target": 0, "times": -1})";
    for (const std::string& file : {folder.path("run.h5"), std::string("/dev/null")}) {
        SCOPED_TRACE(file);
        const std::vector<std::string> command{"record", "-o",    file,        "-d",    "0.4",
                                               "--rate", "10000", "--channel", "AI 1/*"};
        auto arguments = command;
        arguments.insert(arguments.begin(), "--json");
        const auto result = zornhost(arguments, stall);
        EXPECT_EQ(result.exitCode, 1) << result.err;
        const Json json = Json::parse(result.out);
        EXPECT_FALSE(json["good"]);
        EXPECT_TRUE(json["channels"][0]["silent"]);
        EXPECT_FALSE(json["channels"][1]["silent"]);
        const std::string verdict = json["verdict"];
        EXPECT_NE(verdict.find("NOTHING CAME of 1 channel: AI 1/Raw input."), std::string::npos) << verdict;
        EXPECT_EQ(verdict.find("none lost"), std::string::npos) << verdict;
        const auto plain = zornhost(command, stall);
        EXPECT_EQ(plain.exitCode, 1);
        EXPECT_NE(plain.out.find("NOTHING CAME of 1 channel"), std::string::npos) << plain.out;
    }
    EXPECT_NE(RecordingReader(folder.path("run.h5")).text("", "verdict").find("NOTHING CAME"), std::string::npos);
    const auto watched = zornhost({"monitor", "-d", "0.4", "--interval", "0.2", "--channel", "AI 1/*"}, stall);
    EXPECT_EQ(watched.exitCode, 1) << watched.out;
    EXPECT_TRUE(watched.err.ends_with("zornhost: nothing came of AI 1/Raw input\n")) << watched.err;
}

// What the module refuses is said once, in its words, and nothing else looks like a result.
TEST(Zornhost, RefusalOfTheModuleIsOneLine) {
    const auto result = zornhost({"--log", "off", "record", "-o", "/dev/null", "-d", "1"},
                                 R"({"kind": "clearNever", "target": 0, "times": -1})");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    const std::string line = lineWith(result.err, "zornhost: ");
    EXPECT_NE(line.find("start failed: DspControl::Clear process status timeout (0x8"), std::string::npos) << line;
    EXPECT_EQ(result.err.find("zornhost: "), result.err.rfind("zornhost: ")) << result.err;
    EXPECT_TRUE(result.err.ends_with(line + "\n")) << result.err;
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

// The clock is the instrument's, whichever program has set it; one that is not known is shown as such and refuses a
// recording in words.
TEST(Zornhost, TakesTheClockThatTheInstrumentHas) {
    const Folder folder;
    const auto with = [&](const std::string& pll, std::vector<std::string> arguments) {
        folder.write("clock.json", R"({"slots": 1, "supplyOn": true, "pll": )" + pll + "}");
        return Process::run(Process::zornhostOn(folder.path("clock.json"), std::move(arguments)));
    };
    EXPECT_NE(with(R"({"selection": 1})", {"tree"}).out.find("base clock 10000000 Hz"), std::string::npos);
    const std::string none = R"({"lock0": false}, "faults": [{"kind": "scriptRefuses", "times": -1}])";
    EXPECT_NE(with(none, {"tree"}).out.find("base clock unknown"), std::string::npos);
    EXPECT_EQ(with(none, {"--json", "rates"}).exitCode, 0);
    const auto recording = with(none, {"record", "-d", "1", "-o", folder.path("none.h5")});
    EXPECT_EQ(recording.exitCode, 1);
    EXPECT_NE(recording.err.find("The sampling clock is unknown"), std::string::npos) << recording.err;
}

TEST(KestrixSim, ServesTheHost) {
    // A sanitizer's run time must stand in front of what is preloaded.
    std::vector<std::string> arguments{KESTRIX_SIM, "run"};
    if (const char* first = KESTRIX_PRELOAD_FIRST; *first != '\0') {
        arguments.insert(arguments.end(), {"--preload-first", first});
    }
    arguments.insert(arguments.end(), {"--", KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "get", "KESTRIX/Model"});
    const auto host = Process::run(arguments);
    EXPECT_EQ(host.exitCode, 0) << host.err;
    EXPECT_EQ(host.out, "KESTRIX\n");
}

// As it is with a program whose file gives it rights: the loader preloads nothing.
TEST(Zornhost, NeverTakesTheRealInstrumentForTheSimulatedOne) {
    const auto result = Process::run(
        {"/usr/bin/env", "ZORNHOST_SIMULATED=1", KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--simulate", "tree"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("the simulated instrument can't be preloaded"), std::string::npos) << result.err;
}
