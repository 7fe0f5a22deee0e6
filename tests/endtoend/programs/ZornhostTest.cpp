#include <gtest/gtest.h>
#include <sys/resource.h>

#include <nlohmann/json.hpp>

#include "tests/endtoend/RecordingReader.h"
#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

std::vector<std::string> onSimulation(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--simulate"});
    return arguments;
}

class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& name)
        : path_((std::filesystem::temp_directory_path() / (std::to_string(::getpid()) + name)).string()) {}
    ~TemporaryFile() { std::filesystem::remove(path_); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace

TEST(Zornhost, ShowsTheInstrument) {
    const auto info = Process::run(onSimulation({"--json", "info"}));
    ASSERT_EQ(info.exitCode, 0) << info.err;
    const auto json = Json::parse(info.out);
    EXPECT_EQ(json["host"]["CoreTypes"], "1.1.0");
    EXPECT_EQ(json["module"]["driver"], "Harvane Daq Module");
    EXPECT_EQ(json["instrument"]["Manufacturer"], "Harvane");
    EXPECT_EQ(json["instrument"]["Model"], "KESTRIX");

    const auto tree = Process::run(onSimulation({"tree"}));
    ASSERT_EQ(tree.exitCode, 0) << tree.err;
    for (const char* name : {"Measurement system", "KESTRIX", "Analog inputs", "AI 1", "AI 8", "Raw input", "Filtered input"})
        EXPECT_NE(tree.out.find(name), std::string::npos) << name;
}

TEST(Zornhost, ReadsAndSetsProperties) {
    const auto list = Process::run(onSimulation({"--json", "list", "KESTRIX"}));
    ASSERT_EQ(list.exitCode, 0) << list.err;
    const auto properties = Json::parse(list.out)["properties"];
    std::vector<std::string> names;
    for (const auto& property : properties)
        names.push_back(property["name"]);
    for (const char* name : {"SerialNumber", "SampleRate", "BaseClock"})
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;

    EXPECT_EQ(Process::run(onSimulation({"get", "SampleRate"})).out, "1000\n");
    // 48000 doesn't divide 15 MHz: what was asked for and what was set.
    const auto set = Process::run(onSimulation({"set", "SampleRate", "48000"}));
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
        {{"record", "-o", "/nowhere/x.h5", "-d", "1"}, {"/nowhere/x.h5"}},
        {{"record", "-o", "/tmp/x.h5", "-d", "1", "--channel", "AI 9/*"}, {"AI 9/*", "AI 1/Raw input"}},
        {{"--module", "/nowhere.zmod", "info"}, {"/nowhere.zmod"}},
        {{"--module", "/etc/hostname", "info"}, {"/etc/hostname"}},
        {{"--log", "loud", "info"}, {"loud", "verbose"}},
    };
    for (const auto& entry : cases) {
        const auto result = Process::run(onSimulation(entry.arguments));
        EXPECT_EQ(result.exitCode, 1) << entry.arguments[0];
        EXPECT_EQ(result.out, "");
        for (const auto& word : entry.words)
            EXPECT_NE(result.err.find(word), std::string::npos) << word << " in " << result.err;
    }
    EXPECT_EQ(Process::run({KESTRIX_ZORNHOST}).exitCode, 2);
    EXPECT_EQ(Process::run({KESTRIX_ZORNHOST, "record", "-d", "1"}).exitCode, 2);
}

// On a machine without the instrument the program says so and ends.
TEST(Zornhost, WithoutAnInstrumentSaysWhatIsMissing) {
    const auto result = Process::run({KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "tree"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("Failed to open device handle."), std::string::npos) << result.err;
}

TEST(Zornhost, RecordsAndReports) {
    const TemporaryFile file("-records.h5");
    const auto result =
        Process::run(onSimulation({"--json", "record", "-o", file.path(), "-d", "1", "--rate", "10000", "--channel", "AI 1/*"}));
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto json = Json::parse(result.out);
    EXPECT_EQ(json["channels"].size(), 2u);
    EXPECT_EQ(json["lost"], 0);
    EXPECT_TRUE(json["good"]);
    const RecordingReader recording(file.path());
    EXPECT_EQ(recording.channels().size(), 2u);
    EXPECT_EQ(recording.text("", "manufacturer"), "Harvane");
    EXPECT_EQ(recording.count(recording.channels()[0]), json["channels"][0]["samples"]);
}

TEST(Zornhost, InterruptEndsARecordingCleanly) {
    const TemporaryFile file("-interrupt.h5");
    Process process(onSimulation({"record", "-o", file.path(), "-d", "600", "--rate", "10000"}));
    for (int i = 0; i < 600 && !std::filesystem::exists(file.path()); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    const auto asked = std::chrono::steady_clock::now();
    process.signal(SIGINT);
    const auto result = process.wait(30);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(15));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_NE(result.out.find("Ended by the user."), std::string::npos) << result.out;
    const RecordingReader recording(file.path());
    EXPECT_EQ(recording.number("", "complete"), 1.0);
    EXPECT_GT(recording.count(recording.channels()[0]), 1000u);
}

TEST(Zornhost, KilledRecordingStaysReadable) {
    const TemporaryFile file("-killed.h5");
    Process process(onSimulation({"record", "-o", file.path(), "-d", "600", "--rate", "50000"}));
    for (int i = 0; i < 600 && !std::filesystem::exists(file.path()); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    process.signal(SIGKILL);
    EXPECT_EQ(process.wait(30).exitCode, 128 + SIGKILL);
    const RecordingReader recording(file.path());
    EXPECT_EQ(recording.number("", "complete"), 0.0);
    ASSERT_EQ(recording.channels().size(), 16u);
    for (const auto& channel : recording.channels())
        EXPECT_GT(recording.count(channel), 50000u) << channel;
}

// A file system that takes no more ends the recording with a reason; what was written before stays.
TEST(Zornhost, FullDiskIsNamed) {
    const TemporaryFile file("-full.h5");
    rlimit old{};
    ::getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 4 << 20;
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &small);
    Process process(onSimulation({"record", "-o", file.path(), "-d", "20", "--rate", "1000000"}));
    ::setrlimit(RLIMIT_FSIZE, &old);
    ::signal(SIGXFSZ, SIG_DFL);
    const auto result = process.wait(60);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE((result.out + result.err).find("ENDED EARLY"), std::string::npos) << result.out << result.err;
    EXPECT_NE(result.out.find(file.path()), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("File too large"), std::string::npos) << result.out;
}

TEST(Zornhost, MonitorsAndEndsByItself) {
    const auto result = Process::run(
        onSimulation({"--json", "monitor", "-d", "1.2", "--interval", "0.5", "--rate", "20000", "--channel", "AI 1/*"}));
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

// The simulated instrument serves any program, and the program's exit code is what comes back.
TEST(KestrixSim, RunsAnyProgram) {
    const auto read = Process::run({KESTRIX_SIM, "run", "--", "/bin/cat", "/sys/class/net/eth0/address"});
    EXPECT_EQ(read.exitCode, 0) << read.err;
    EXPECT_EQ(std::count(read.out.begin(), read.out.end(), ':'), 5) << read.out;
    EXPECT_EQ(Process::run({KESTRIX_SIM, "run", "--", "/bin/sh", "-c", "exit 7"}).exitCode, 7);
    // A sanitizer's run time must stand in front of what is preloaded.
    std::vector<std::string> arguments{KESTRIX_SIM, "run"};
    if (const std::string first = KESTRIX_PRELOAD_FIRST; !first.empty())
        arguments.insert(arguments.end(), {"--preload-first", first});
    arguments.insert(arguments.end(), {"--", KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "get", "KESTRIX/Model"});
    const auto host = Process::run(arguments);
    EXPECT_EQ(host.exitCode, 0) << host.err;
    EXPECT_EQ(host.out, "KESTRIX\n");
}
