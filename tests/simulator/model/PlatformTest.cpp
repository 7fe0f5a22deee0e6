#include <gtest/gtest.h>

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <filesystem>

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
    Scenario scenario{.boardType = 1,
                      .slots = 200,
                      .serialNumber = 0x0102030405060708,
                      .hardwareVersion = 0x04030201,
                      .modules = {},
                      .faults = {}};
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
    EXPECT_EQ((Bytes{0xAA, 0x7E}), registerBytes(rig, 0x58, 0x10, 2));
    const uint8_t control[2] = {0x11, 0x80};
    EXPECT_EQ(2, rig.instrument.i2cWrite(0x58, control, 2));
    EXPECT_EQ((Bytes{0xAA, 0x80}), registerBytes(rig, 0x58, 0x10, 2));
    EXPECT_EQ(514, rig.instrument.timingState().controlWord);
    const Bytes warm = registerBytes(rig, 0x48, 0, 2);
    ASSERT_EQ(2u, warm.size());
    EXPECT_EQ(38.5, (warm[0] << 8 | warm[1]) / 256.0);
    registerBytes(rig, 0x4B, 0, 1);
    EXPECT_EQ(-ENXIO, rig.result);
    uint8_t byte = 0;
    I2cMessage message{0x33, true, &byte, 1};
    EXPECT_EQ(-ENXIO, rig.instrument.i2cTransfer(&message, 1));
    Rig two({.boardType = 1, .modules = {}, .faults = {}});
    message.address = 0x4D;
    EXPECT_EQ(-ENXIO, two.instrument.i2cTransfer(&message, 1));
}

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

class RootTest : public testing::Test {
protected:
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
