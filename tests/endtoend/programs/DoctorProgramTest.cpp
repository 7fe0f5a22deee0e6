#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/endtoend/programs/Process.h"

using Json = nlohmann::json;

namespace {

// `zornhost doctor` on the simulated instrument. What the machine that runs the test is like must not matter: of its
// checks nothing is asked, and none of them is FAIL as long as nothing is to be written.
class DoctorProgram : public testing::Test {
protected:
    // `scenario`: more keys of the scenario.
    std::vector<std::string> command(std::vector<std::string> arguments, const std::string& scenario = "") {
        folder.write("scenario.json", "{\"supplyOn\": true" + (scenario.empty() ? "" : ", " + scenario) + "}");
        arguments.insert(arguments.begin(), {KESTRIX_ZORNHOST, "--module", KESTRIX_MODULE, "--amplifiers",
                                             KESTRIX_AMPLIFIERS, "--simulate", folder.path("scenario.json")});
        return arguments;
    }
    static std::string faults(const std::string& list) { return "\"faults\": [" + list + "]"; }

    Folder folder;
};

constexpr const char* instrumentChecks[] = {
    "instrument",        "module",      "memory device", "I2C bus",         "amplifier port",
    "data streams",      "GPIO lines",  "timing device", "timing switches", "role script",
    "oscillator script", "definitions", "CAN",           "drivers",         "LEDs"};

struct Situation {
    std::string scenario;
    std::vector<std::string> arguments;  // behind "doctor --json"
    std::string check;
    std::string state;
    std::string found;
    std::string fix;
    std::set<std::string> also{};  // other checks of the instrument that are not OK then
};

}  // namespace

TEST_F(DoctorProgram, FindsWhatIsBroken) {
    folder.write("module.zmod", "no library");
    folder.write("wrong/mine.json", "{ \"className\": ");
    folder.write("kestrix.lock", "");
    const int held = ::open(folder.path("kestrix.lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    const std::string refused = "Permission denied";
    const std::vector<Situation> situations{
        {"", {}, "instrument", "OK", "simulated", ""},
        {R"("boardType": 1, "slots": 2)", {}, "data streams", "OK", "raw and filtered streams of 2 modules", ""},
        {faults(R"({"kind": "memOpen"})"), {}, "memory device", "FAIL", "can't be opened: No such file", "/dev/mem"},
        {faults(R"({"kind": "memOpen", "code": 1})"), {}, "memory device", "FAIL", "Operation not permitted", "sudo "},
        {faults(R"({"kind": "i2cOpen", "code": 13})"), {}, "I2C bus", "FAIL", refused, "ls -l /dev/i2c-1"},
        {faults(R"({"kind": "uartOpen", "code": 16})"),
         {},
         "amplifier port",
         "FAIL",
         "another program has it",
         "sudo fuser -v /dev/ttyPS1"},
        {faults(R"({"kind": "timingOpen", "code": 13})"), {}, "timing device", "FAIL", refused, "ls -l"},
        {faults(R"({"kind": "dmaOpen", "target": 5, "code": 6})"),
         {},
         "data streams",
         "FAIL",
         "/dev/tolvn_dma_f2 is there",
         "sudo modprobe tolvn_dma"},
        {R"("slots": 0)", {}, "data streams", "FAIL", "there is no /dev/tolvn_dma_r0", "sudo modprobe tolvn_dma"},
        {faults(R"({"kind": "sysfsMissing"})"),
         {},
         "GPIO lines",
         "FAIL",
         "gpio504/value: No such file",
         "echo 504",
         {"LEDs"}},
        {faults(R"({"kind": "scriptsMissing"})"),
         {},
         "role script",
         "FAIL",
         "ptp_control.sh: No such file",
         "sudo install -D -m 755 ptp_control.sh",
         {"oscillator script"}},
        {faults(R"({"kind": "scriptRefuses"})"), {}, "role script", "FAIL", "answers \"ERR:fault\"", "sh -x"},
        {faults(R"({"kind": "scriptSilent"})"), {}, "role script", "FAIL", "doesn't answer", "sh -x"},
        {faults(R"({"kind": "scriptFails"})"), {}, "role script", "FAIL", "Cannot allocate memory", "sh -x"},
        {R"("can": {"interfaces": []})", {}, "CAN", "WARN", "no CAN interface", "sudo modprobe can_raw"},
        {R"("can": {"interfaces": [{"name": "can0"}, {"name": "can2"}]})",
         {},
         "CAN",
         "WARN",
         "port 2 would be can1",
         "sudo ip link set can2 name can1"},
        {"", {"--module", folder.path("module.zmod")}, "module", "FAIL", "can't be used", "ldd "},
        {"", {"--module", folder.path("none.zmod")}, "module", "FAIL", "No such file", "--module FILE doctor"},
        {"", {"--amplifiers", folder.path("wrong")}, "definitions", "FAIL", "mine.json", "check-amplifiers"},
        {"",
         {"--folder", folder.path("none")},
         "disk space",
         "FAIL",
         "is not there",
         "mkdir -p " + folder.path("none")},
        {"", {"--folder", folder.path(), "--need", "1000000"}, "disk speed", "FAIL", "1000000 MB/s asked for", "lsblk"},
        // Held by another process: nothing is opened that could disturb it, so that the fault isn't met.
        {faults(R"({"kind": "memOpen", "times": -1})"),
         {"--lock", folder.path("kestrix.lock")},
         "instrument",
         "WARN",
         "another process holds it",
         "sudo fuser -v"},
    };
    for (const auto& situation : situations) {
        std::vector<std::string> arguments{"doctor", "--json"};
        arguments.insert(arguments.end(), situation.arguments.begin(), situation.arguments.end());
        const std::string here = testing::PrintToString(arguments) + " " + situation.scenario;
        const bool disk = situation.check.starts_with("disk");
        if (!disk) {
            arguments.insert(arguments.end(), {"-o", "/dev/null"});
        }
        const auto result = Process::run(command(arguments, situation.scenario));
        const Json report = Json::parse(result.out, nullptr, false);
        ASSERT_TRUE(report.is_array()) << here << result.err;
        EXPECT_EQ(result.exitCode, situation.state == "FAIL" ? 1 : 0) << here << result.out;
        std::set<std::string> seen;
        for (const auto& finding : report) {
            const std::string check = finding.at("check");
            const std::string state = finding.at("state");
            seen.insert(check);
            if (check == situation.check) {
                EXPECT_EQ(state, situation.state) << here;
                EXPECT_THAT(finding.at("found"), testing::HasSubstr(situation.found)) << here;
                EXPECT_THAT(finding.at("fix").dump(), testing::HasSubstr(situation.fix)) << here;
            } else if (std::find(std::begin(instrumentChecks), std::end(instrumentChecks), check) !=
                       std::end(instrumentChecks)) {
                EXPECT_EQ(state == "OK", situation.also.count(check) == 0) << here << finding;
            }
        }
        for (const char* check : instrumentChecks) {
            EXPECT_EQ(seen.count(check), 1u) << here << check;
        }
        EXPECT_EQ(seen.count(situation.check), 1u) << here;
    }
    ::close(held);
}

// As a person reads it: a line for each check that fits a screen, its way out below it, and the sum at the end.
TEST_F(DoctorProgram, TellsAPersonWhatToDo) {
    const auto result = Process::run(
        command({"doctor", "-o", "/dev/null"}, faults(R"({"kind": "i2cOpen"}, {"kind": "scriptsMissing"})")));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.out,
                testing::HasSubstr("\nFAIL  I2C bus            /dev/i2c-1 is there (root:root 0660), but can't be\n"
                                   "                         opened: No such file or directory: no device answers\n"
                                   "                         there\n      sudo modprobe i2c-dev\n"));
    EXPECT_THAT(result.out,
                testing::ContainsRegex("\n24 checks: 3 FAIL, [0-9]+ WARN\\. A measurement will not run as it "
                                       "is meant\\.\n$"));
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        const size_t words = line.find_first_not_of(' ');
        const bool command = words == 6;  // stays in one piece
        EXPECT_TRUE(command || line.size() <= 80 || line.find(' ', 25) == std::string::npos) << line;
    }
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Process::run(command({"doctor", "-o", "/dev/null", "--folder", "."})).exitCode, 2);
}
