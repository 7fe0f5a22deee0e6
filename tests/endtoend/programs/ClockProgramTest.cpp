#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/endtoend/RecordingReader.h"
#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

// A board with one module whose time runs twenty times as fast; `reference` is its "pps".
class ClockProgram : public testing::Test {
protected:
    std::vector<std::string> onInstrument(std::vector<std::string> arguments, const std::string& reference = "{}",
                                          const std::string& more = "") {
        folder.write("clock.json",
                     R"({"slots": 1, "supplyOn": true, "timeFactor": 20, "oscillatorErrorPpm": 9, "pps": )" +
                         reference + more + R"(, "modules": [{"slot": 0, "waveform": {"kind": "counter"}}]})");
        return Process::zornhostOn(folder.path("clock.json"), std::move(arguments));
    }
    std::vector<std::string> asking(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {KESTRIX_ZORNHOST, "--lock", folder.path("lock")});
        return arguments;
    }
    // Of the process that holds the instrument; empty as long as it serves none.
    std::string socketOf() const {
        const std::string text = contents(folder.path("lock"));
        const size_t at = text.find("socket ");
        return at == std::string::npos ? std::string() : text.substr(at + 7, text.find('\n', at) - at - 7);
    }
    Folder folder;
};

}  // namespace

TEST_F(ClockProgram, TakesTheInstrumentAndWaitsForTheLock) {
    const auto once = Process::run(onInstrument({"--sync", "PPS", "--json", "clock", "-d", "30", "--csv",
                                                 folder.path("c.csv"), "--plot", folder.path("c.svg")}));
    ASSERT_EQ(once.exitCode, 0) << once.err;
    const Json report = Json::parse(once.out);
    EXPECT_EQ(report["mode"].get<std::string>() + ", " + report["lock"].get<std::string>(), "PPS, locked");
    EXPECT_GE(report["lastMinute"]["pulses"], 25);
    EXPECT_LT(report["lastMinute"]["rmsNs"], 3000.0);
    EXPECT_NEAR(report["acquisitionTimeS"].get<double>(), 32.0, 5.0);
    const std::string csv = contents(folder.path("c.csv"));
    EXPECT_GE(std::count(csv.begin(), csv.end(), '\n'), 30);
    EXPECT_NE(csv.find(",locked,"), std::string::npos);
    EXPECT_NE(contents(folder.path("c.svg")).find("<svg"), std::string::npos);

    const auto standalone = Process::run(onInstrument({"clock"}));
    EXPECT_EQ(standalone.exitCode, 0) << standalone.err;
    EXPECT_NE(standalone.out.find("free-running"), std::string::npos) << standalone.out;

    struct Case {
        std::vector<std::string> arguments;
        std::string reference;
        std::string words;
    };
    const Case cases[] = {
        {{"clock", "wait"}, "{}", "follows nothing"},
        {{"--sync", "PPS", "clock", "wait", "--timeout", "20"}, R"({"present": false})", "the reference is away"},
        {{"--sync", "PPS", "clock", "wait", "--within", "1", "--timeout", "10"},
         "{}",
         "it is locked, with an error of up to"},
        {{"--sync", "PPS", "clock", "--plot", "x.gif"}, "{}", ".png or .svg"},
        {{"--sync", "PPS", "clock", "-d", "600", "--plot", "/nowhere/x.png"}, "{}", "cannot be written: No such file"},
    };
    for (const Case& each : cases) {
        const auto result = Process::run(onInstrument(each.arguments, each.reference));
        EXPECT_EQ(result.exitCode, 1) << each.words;
        EXPECT_NE(result.err.find(each.words), std::string::npos) << result.err;
        // One time for all waiting: the start takes some seconds more.
        if (const size_t after = result.err.find(" after "); after != std::string::npos) {
            EXPECT_LT(std::stod(result.err.substr(after + 7)), 28.0) << result.err;
        }
    }
    EXPECT_EQ(Process::run(onInstrument({"--sync", "PPS", "clock", "wait", "--within", "5000"})).exitCode, 0);
}

// The wish for a new internal second is passed over once: it takes a second start to be locked.
TEST_F(ClockProgram, AStartThatDoesNotBringThePhaseIsRepeated) {
    const auto result = Process::run(
        onInstrument({"--sync", "PPS", "clock", "wait"}, "{}", R"(, "faults": [{"kind": "syncHeld", "times": 4}])"));
    EXPECT_EQ(result.exitCode, 0) << result.err << result.out;
}

TEST_F(ClockProgram, AHolderTellsOthersAndItsFileTellsOfTheClock) {
    const std::string file = folder.path("r.h5");
    Process holder(onInstrument({"--sync", "PPS", "--lock", folder.path("lock"), "record", "-o", file, "-d", "400"},
                                R"({"outages": [{"from": 60, "until": 90}]})"));
    ASSERT_TRUE(await([&] { return !socketOf().empty(); }));
    const auto waited = Process::run(asking({"--json", "clock", "wait", "--timeout", "5"}));
    ASSERT_EQ(waited.exitCode, 0) << waited.err;
    EXPECT_EQ(Json::parse(waited.out)["mode"], "PPS");
    const auto refused = Process::run(asking({"--sync", "IRIG", "clock"}));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("held by process " + std::to_string(holder.pid())), std::string::npos) << refused.err;
    EXPECT_EQ(Process::run(asking({"tree"})).exitCode, 3) << "only the clock can be asked for";
    // The history of a holder is there at once.
    EXPECT_EQ(Process::run(asking({"clock", "--csv", folder.path("h.csv")})).exitCode, 0);
    EXPECT_NE(contents(folder.path("h.csv")).find(",not locked,"), std::string::npos);

    ASSERT_TRUE(await([&] { return holder.errors().find("recording: 101 of") != std::string::npos; }));
    holder.signal(SIGINT);
    const auto ended = holder.wait();
    // At twenty times the speed a loaded machine may lose samples. What the clock did is no failure.
    EXPECT_EQ(ended.exitCode == 0, ended.out.find("none lost") != std::string::npos) << ended.err << ended.out;
    EXPECT_NE(ended.out.find("CLOCK WITHOUT ITS REFERENCE (PPS): locked at the start, locked at the end, 2 changes"),
              std::string::npos)
        << ended.out;
    const RecordingReader recording(file);
    EXPECT_EQ(recording.text("", "clock_mode") + ", " + recording.text("", "clock_lock_at_start") + ", " +
                  recording.text("", "clock_lock_at_end"),
              "PPS, locked, locked");
    EXPECT_EQ(recording.clockLocks(), (std::vector<std::string>{"locked", "holding", "locked"}));
}

TEST_F(ClockProgram, ARecordingWhoseClockIsNotLockedSaysSo) {
    const std::string file = folder.path("r.h5");
    const std::vector<std::string> command = {"--sync", "PPS", "record", "-o", file, "-d", "3", "--lock-timeout", "3"};
    auto strict = command;
    strict.emplace_back("--strict");
    const auto refused = Process::run(onInstrument(strict, R"({"present": false})"));
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("--strict, and the clock is not locked to PPS"), std::string::npos) << refused.err;
    const auto told = Process::run(onInstrument(command, R"({"present": false})"));
    EXPECT_EQ(told.exitCode, 1);
    EXPECT_NE(told.out.find("CLOCK NOT LOCKED (PPS): not locked at the start"), std::string::npos) << told.out;
    EXPECT_EQ(RecordingReader(file).text("", "clock_lock_at_start"), "not locked");
}

// What a holder that was killed leaves behind is nothing that the next one stumbles over, nor stays for ever.
TEST_F(ClockProgram, AKilledHolderLeavesNoSocketForEver) {
    const auto record = [&] {
        return onInstrument({"--lock", folder.path("lock"), "record", "-o", "/dev/null", "-d", "600"});
    };
    std::string left;
    {
        Process killed(record());
        ASSERT_TRUE(await([&] { return !(left = socketOf()).empty(); }));
    }
    EXPECT_TRUE(std::filesystem::exists(left));
    EXPECT_EQ(Process::run(onInstrument({"--lock", folder.path("lock"), "info"})).exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(left));
}
