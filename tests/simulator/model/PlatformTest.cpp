#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// As a program reads a register: write its number, read so many bytes.
Bytes registerBytes(Rig& rig, int slave, uint8_t number, size_t count) {
    rig.result = rig.instrument.i2cWrite(slave, &number, 1);
    if (rig.result < 0) {
        return {};
    }
    Bytes bytes(count);
    rig.result = rig.instrument.i2cRead(slave, bytes.data(), count);
    bytes.resize(rig.result < 0 ? 0 : static_cast<size_t>(rig.result));
    return bytes;
}

TEST(I2c, eepromTellsTheBoard) {
    Scenario scenario;
    scenario.boardType = 1;
    scenario.slots = 200;
    scenario.serialNumber = 0x0102030405060708;
    scenario.hardwareVersion = 0x04030201;
    Rig rig(scenario);
    EXPECT_EQ((Bytes{1, 0xFA, 0xF3, 0x20, 1, 2, 3, 4, 5, 6, 7, 8, 1, 200, 0xC0, 0}), registerBytes(rig, 0x50, 0, 16));
    EXPECT_EQ((Bytes{4, 3, 2, 1}), registerBytes(rig, 0x50, 0x28, 4));
    EXPECT_EQ((Bytes{0x02, 0x4B, 0x53, 6, 7, 8, 1}), registerBytes(rig, 0x50, 0xFA, 7)) << "and round to byte 0";
    scenario.eepromKeyValid = false;
    scenario.eepromVersion = 0;
    Rig blank(scenario);
    EXPECT_EQ(0, registerBytes(blank, 0x50, 0, 1)[0]);
    EXPECT_NE((Bytes{0xFA, 0xF3, 0x20}), registerBytes(blank, 0x50, 1, 3));
}

TEST(I2c, otherChips) {
    Rig rig(Scenario{});
    EXPECT_EQ((Bytes{0xA8}), registerBytes(rig, 0x58, 0x10, 1));
    EXPECT_EQ((Bytes{0x80}), registerBytes(rig, 0x58, 0x11, 1));
    const uint8_t control[2] = {0x11, 0x7E};
    EXPECT_EQ(2, rig.instrument.i2cWrite(0x58, control, 2));
    EXPECT_EQ((Bytes{0xA8, 0x7E}), registerBytes(rig, 0x58, 0x10, 2));
    const Bytes warm = registerBytes(rig, 0x48, 0, 2);
    ASSERT_EQ(2u, warm.size());
    EXPECT_EQ(38.5, (warm[0] << 8 | warm[1]) / 256.0);
    registerBytes(rig, 0x4B, 0, 1);
    EXPECT_EQ(-ENXIO, rig.result);
    uint8_t byte = 0;
    I2cMessage message{0x33, true, &byte, 1};
    EXPECT_EQ(-ENXIO, rig.instrument.i2cTransfer(&message, 1));
    Scenario small;
    small.boardType = 1;
    Rig two(small);
    message.address = 0x4D;
    EXPECT_EQ(-ENXIO, two.instrument.i2cTransfer(&message, 1));
}

const std::string ptp = "/opt/harvane/scripts/ptp_control.sh";
const std::string vcxo = "/opt/harvane/scripts/vcxo_control.sh";

std::string lastLine(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text.substr(text.rfind('\n') + 1);
}

TEST(Scripts, faultsSwitchNothing) {
    Rig rig(Scenario{});
    EXPECT_EQ(0x110u, rig.word(0xB0000000));
    EXPECT_EQ("ERR:range", lastLine(rig.instrument.runCommand(vcxo + " set_clock 12")));
    rig.instrument.inject({.kind = FaultKind::ScriptRefuses});
    EXPECT_EQ("ERR:fault", lastLine(rig.instrument.runCommand(vcxo + " set_clock 10")));
    rig.instrument.inject({.kind = FaultKind::ScriptSilent});
    EXPECT_EQ("", rig.instrument.runCommand(vcxo + " set_clock 10"));
    EXPECT_EQ(0x110u, rig.word(0xB0000000));
    EXPECT_EQ("OK:", lastLine(rig.instrument.runCommand(vcxo + " set_clock 10")));
    EXPECT_EQ(0u, rig.word(0xB0000000)) << "the PLL lost its lock";
}

TEST(Scripts, otherCommandsAreNotTheInstruments) {
    Rig rig(Scenario{});
    EXPECT_TRUE(rig.instrument.ownsCommand(vcxo));
    EXPECT_FALSE(rig.instrument.ownsCommand(ptp + "x status"));
    EXPECT_FALSE(rig.instrument.ownsCommand("echo " + ptp));
}

class RootTest : public testing::Test {
protected:
    RootTest() : root_(fs::temp_directory_path() / ("kestrix-root-" + std::to_string(getpid()))) {}
    ~RootTest() override { fs::remove_all(root_); }

    std::string shell(const std::string& command) {
        FILE* pipe = popen((root_.string() + command).c_str(), "r");
        std::string text;
        char piece[128];
        while (pipe != nullptr && fgets(piece, sizeof piece, pipe) != nullptr) {
            text += piece;
        }
        if (pipe != nullptr) {
            pclose(pipe);
        }
        return text;
    }

    fs::path root_;
};

TEST_F(RootTest, filesOfLampsAndLinesCanBeMissing) {
    Scenario scenario;
    scenario.faults.push_back({.kind = FaultKind::SysfsMissing});
    Instrument(scenario).populateRoot(root_.string());
    EXPECT_FALSE(fs::exists(root_ / "board/leds/led2/brightness"));
    EXPECT_FALSE(fs::exists(root_ / "sys/class/gpio/gpio506/value"));
    EXPECT_TRUE(fs::exists(root_ / "sys/class/tolvn_korvel/tolvn_timing/irig_in_enabled"));
}

TEST_F(RootTest, shellScriptsAnswerAsTheModelDoes) {
    Instrument instrument{Scenario{}};
    instrument.populateRoot(root_.string());
    // The role counts from the restart.
    const std::string roles[] = {"mode=disabled;pps_mode=none", "mode=master;pps_mode=pps", "mode=slave;pps_mode=none"};
    const std::pair<std::string, std::string> cases[] = {{"status", roles[0]}, {"master pps", ""}, {"status", roles[0]},
                                                         {"restart", ""}, {"status", roles[1]}, {"slave", ""},
                                                         {"restart", ""}, {"status", roles[2]}};
    for (const auto& [arguments, reply] : cases) {
        EXPECT_EQ("OK:" + reply + "\n", instrument.runCommand(ptp + " " + arguments)) << arguments;
        EXPECT_EQ("OK:" + reply + "\n", shell(ptp + " " + arguments)) << arguments;
    }
    EXPECT_EQ(instrument.runCommand(ptp + " nonsense"), shell(ptp + " nonsense"));
    for (const std::string arguments : {"set_clock 10", "set_clock 11", "help"}) {
        EXPECT_EQ(instrument.runCommand(vcxo + " " + arguments), shell(vcxo + " " + arguments)) << arguments;
    }
}

}  // namespace
