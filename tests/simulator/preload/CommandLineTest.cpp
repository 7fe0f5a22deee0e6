#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>

#include "simulator/model/ScenarioJson.h"
#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

struct Result {
    int status;
    std::string out;
    std::string err;
};

// Runs the program that was built beside this one.
class CommandLine : public testing::Test {
protected:
    TemporaryFolder folder_;
    const std::string program_ = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "kestrix-sim";

    // The simulator's folders go where the test can see them.
    Result run(const std::string& arguments, const std::string& environment = "") {
        const std::string line = "cd " + folder_.path().string() +
                                 " && mkdir -p tmp && env TMPDIR=" + (folder_ / "tmp") + " " + environment +
                                 " timeout 60 " + program_ + " " + arguments + " >out 2>err </dev/null";
        const int status = std::system(line.c_str());
        return {WEXITSTATUS(status), content("out"), content("err")};
    }

    std::string content(const std::string& name) {
        std::ifstream file(folder_ / name);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(CommandLine, RunServesAProgramThatKnowsNothingOfIt) {
    const Result address = run("run -- cat /sys/class/net/eth0/address");
    EXPECT_EQ(address.status, 0) << address.err;
    EXPECT_EQ(address.out.size(), 18u);
    EXPECT_TRUE(std::filesystem::is_empty(folder_ / "tmp")) << "the root folder stays behind";
    EXPECT_EQ(run("run -- test -c /dev/ttyPS1").status, 0);
    EXPECT_EQ(run("run -- cat /dev/tolvn_gpio").status, 1);
    const Result pipeline = run("run -- sh -c 'cat /sys/class/gpio/gpio504/value | wc -l; exit 7'");
    EXPECT_EQ(pipeline.status, 7);
    EXPECT_EQ(pipeline.err, "");
    const Result size = run("run -- stat -c %t:%T /dev/i2c-1");
    EXPECT_EQ(size.out, "59:1\n");
}

TEST_F(CommandLine, RunReportsWhatItCannotRun) {
    std::ofstream(folder_ / "plain") << "#!/bin/sh\n";
    // The head of a program for another kind of processor.
    std::ofstream(folder_ / "narrow") << "\177ELF\1\1\1" + std::string(100, '\0');
    const std::pair<const char*, int> cases[] = {{"run -- no-such-program", 127},
                                                 {"run -- ./plain", 126},
                                                 {"run -- ./narrow", 126},
                                                 {"run", 2},
                                                 {"", 2},
                                                 {"bogus", 2},
                                                 {"--help", 0}};
    for (const auto& [arguments, status] : cases) {
        EXPECT_EQ(run(arguments).status, status) << arguments;
    }
    EXPECT_NE(run("run -- ./narrow").err.find("no 64-bit program"), std::string::npos);
}

TEST_F(CommandLine, RunHandsTheScenarioOn) {
    std::ofstream(folder_ / "two.json") << R"({"slots": 2, "boardType": 1})";
    EXPECT_EQ(run("run --scenario two.json -- test -c /dev/tolvn_dma_f1").status, 0);
    EXPECT_EQ(run("run --scenario two.json -- test -c /dev/tolvn_dma_f2").status, 1);
    EXPECT_EQ(run("run -- test -c /dev/tolvn_dma_f2").status, 0);
    EXPECT_EQ(run("run -- test -c /dev/tolvn_dma_f2", "KESTRIX_SIM_SCENARIO=" + (folder_ / "two.json")).status, 0)
        << "without a file it is the standard scenario, whatever the environment says";
    std::ofstream(folder_ / "wrong.json") << R"({"slots": "two"})";
    const Result wrong = run("run --scenario wrong.json -- true");
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.err.find("slots"), std::string::npos);
}

TEST_F(CommandLine, PreloadsAreChained) {
    const Result both = run("run -- env", "LD_PRELOAD=libdl.so.2 KESTRIX_SIM_PRELOAD_FIRST=libpthread.so.0");
    const size_t start = both.out.find("LD_PRELOAD=libpthread.so.0:/");
    ASSERT_NE(start, std::string::npos) << both.out;
    EXPECT_NE(both.out.find("libkestrixsim.so:libdl.so.2\n", start), std::string::npos) << both.out;
}

TEST_F(CommandLine, AWrongScenarioEndsAPreloadedProgram) {
    std::ofstream(folder_ / "wrong.json") << "{";
    const std::filesystem::path folder = std::filesystem::path(program_).parent_path();
    const std::string library = std::filesystem::canonical(folder / "../lib/libkestrixsim.so");
    const std::string line = "KESTRIX_SIM_SCENARIO=" + (folder_ / "wrong.json") + " LD_PRELOAD=" + library +
                             " cat /sys/class/net/eth0/address >" + (folder_ / "out") + " 2>" + (folder_ / "err");
    const int status = std::system(line.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 78);
    EXPECT_NE(content("err").find("wrong.json"), std::string::npos);
    EXPECT_EQ(content("out"), "");
}

TEST_F(CommandLine, ScenariosArePrintedAsTheyAreRead) {
    const Result standard = run("scenario");
    EXPECT_EQ(standard.out, ScenarioJson::write(Scenario::standard()));
    EXPECT_EQ(run("scenario --standard").out, standard.out);
    EXPECT_EQ(run("scenario --counters").out, ScenarioJson::write(Scenario::counters()));
    EXPECT_EQ(run("scenario --standard --counters").status, 2);
    EXPECT_EQ(standard.err, "");
}

TEST_F(CommandLine, CheckSaysWhatIsWrong) {
    std::ofstream(folder_ / "good.json") << R"({"slots": 2, "modules": [{"slot": 1}]})";
    std::ofstream(folder_ / "bad\"name.json") << R"({"slotz": 2})";
    EXPECT_EQ(run("check good.json").out, "good.json: board type 0, 2 slots, 1 modules, 0 faults\n");
    EXPECT_EQ(nlohmann::json::parse(run("check --json good.json").out)["modules"], 1);
    const Result bad = run("check --json 'bad\"name.json'");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("slotz: unknown key"), std::string::npos);
    const auto json = nlohmann::json::parse(bad.out);
    EXPECT_EQ(json["valid"], false);
    EXPECT_EQ(json["file"], "bad\"name.json");
}

TEST_F(CommandLine, DoorsListWhatIsServed) {
    const auto doors = nlohmann::json::parse(run("doors --json").out);
    const auto isStream = [](const auto& door) { return door["path"] == "/dev/tolvn_dma_rN"; };
    const auto stream = std::find_if(doors.begin(), doors.end(), isStream);
    ASSERT_NE(stream, doors.end());
    EXPECT_EQ((*stream)["answer"], "device");
    EXPECT_NE(run("doors").out.find("falls through"), std::string::npos);
}

}  // namespace
