#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

namespace fs = std::filesystem;

const std::string ptp = "/opt/harvane/scripts/ptp_control.sh";
const std::string vcxo = "/opt/harvane/scripts/vcxo_control.sh";

TEST(Scripts, faultsSwitchNothing) {
    Rig rig(Scenario{});
    const auto run = [&] { return rig.instrument.runCommand(vcxo + " set_clock 10"); };
    rig.instrument.inject({.kind = FaultKind::ScriptRefuses});
    EXPECT_TRUE(run().ends_with("ERR:fault\n"));
    rig.instrument.inject({.kind = FaultKind::ScriptSilent});
    EXPECT_EQ("", run());
    EXPECT_EQ(0x110u, rig.word(0xB0000000));
    EXPECT_TRUE(run().ends_with("OK:\n"));
    EXPECT_EQ(0u, rig.word(0xB0000000)) << "the PLL lost its lock";
    rig.instrument.inject({.kind = FaultKind::ScriptUnheard});
    EXPECT_EQ("", rig.instrument.runCommand(vcxo + " set_clock 15"));
    EXPECT_EQ(0x110u, rig.word(0xB0000000)) << "this one does its work";
}

struct RootTest : testing::Test {
    RootTest() : root_(fs::temp_directory_path() / ("kestrix-root-" + std::to_string(getpid()))) {}
    ~RootTest() override { fs::remove_all(root_); }

    std::string shell(const std::string& command) {
        FILE* pipe = popen((root_.string() + command).c_str(), "r");
        std::string text;
        char piece[128];
        while (fgets(piece, sizeof piece, pipe) != nullptr) {
            text += piece;
        }
        pclose(pipe);
        return text;
    }

    fs::path root_;
};

TEST_F(RootTest, filesOfLampsAndLinesCanBeMissing) {
    const Scenario scenario{.modules = {}, .faults = {{.kind = FaultKind::SysfsMissing}}};
    Instrument(scenario).populateRoot(root_.string());
    EXPECT_FALSE(fs::exists(root_ / "board/leds/led2/brightness"));
    EXPECT_FALSE(fs::exists(root_ / "sys/class/gpio/gpio506/value"));
    EXPECT_TRUE(fs::exists(root_ / "sys/class/tolvn_korvel/tolvn_timing/irig_in_enabled"));
}

TEST_F(RootTest, shellScriptsAnswerAsTheModelDoes) {
    Instrument instrument{Scenario{}};
    instrument.populateRoot(root_.string());
    // The role counts from the restart.
    const std::string commands[] = {ptp + " status",        ptp + " master pps",    ptp + " status",  ptp + " restart",
                                    ptp + " status",        ptp + " slave",         ptp + " restart", ptp + " nonsense",
                                    vcxo + " set_clock 10", vcxo + " set_clock 11", vcxo + " help"};
    for (const std::string& command : commands) {
        EXPECT_EQ(instrument.runCommand(command), shell(command)) << command;
    }
    EXPECT_EQ("OK:mode=slave;pps_mode=none\n", instrument.runCommand(ptp + " status"));
    EXPECT_EQ("OK:mode=slave;pps_mode=none\n", shell(ptp + " status"));
}

}  // namespace
