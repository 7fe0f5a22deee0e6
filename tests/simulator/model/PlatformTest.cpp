#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
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
    // One read after another goes on where the last one ended.
    uint8_t byte = 0;
    registerBytes(rig, 0x50, 4, 1);
    rig.instrument.i2cRead(0x50, &byte, 1);
    EXPECT_EQ(2, byte);
    scenario.eepromKeyValid = false;
    scenario.eepromVersion = 0;
    Rig blank(scenario);
    const Bytes head = registerBytes(blank, 0x50, 0, 4);
    EXPECT_EQ(0, head[0]);
    EXPECT_NE((Bytes{0, 0xFA, 0xF3, 0x20}), head);
}

TEST(I2c, eepromFaults) {
    Rig rig(Scenario{});
    rig.instrument.inject({.kind = FaultKind::EepromShortRead});
    EXPECT_EQ(2u, registerBytes(rig, 0x50, 1, 3).size());
    EXPECT_EQ(3u, registerBytes(rig, 0x50, 1, 3).size());
    rig.instrument.inject({.kind = FaultKind::EepromSilent, .times = -1});
    registerBytes(rig, 0x50, 1, 3);
    EXPECT_EQ(-ENXIO, rig.result);
    EXPECT_EQ(2u, registerBytes(rig, 0x48, 0, 2).size()) << "only the EEPROM is gone";
    rig.instrument.clearFaults();
    EXPECT_EQ(3u, registerBytes(rig, 0x50, 1, 3).size());
    rig.instrument.inject({.kind = FaultKind::I2cOpen});
    rig.instrument.inject({.kind = FaultKind::UartOpen});
    EXPECT_EQ(-ENOENT, rig.instrument.i2cOpen());
    EXPECT_EQ(0, rig.instrument.i2cOpen());
    EXPECT_EQ(-ENOENT, rig.instrument.uartOpen());
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

TEST(Scripts, roleCountsFromTheRestart) {
    Rig rig(Scenario{});
    const auto run = [&](const std::string& arguments) { return rig.instrument.runCommand(ptp + " " + arguments); };
    EXPECT_EQ("OK:mode=disabled;pps_mode=none\n", run("status"));
    const std::pair<const char*, const char*> roles[] = {{"master", "mode=master;pps_mode=none"},
                                                         {"master pps", "mode=master;pps_mode=pps"},
                                                         {"master standalone", "mode=master;pps_mode=standalone"},
                                                         {"slave", "mode=slave;pps_mode=none"},
                                                         {"irig master", "mode=disabled;pps_mode=none"},
                                                         {"irig slave", "mode=disabled;pps_mode=none"},
                                                         {"disable", "mode=disabled;pps_mode=none"}};
    std::string before = run("status");
    for (const auto& [argument, status] : roles) {
        EXPECT_EQ("OK:\n", run(argument));
        EXPECT_EQ(before, run("status")) << argument;
        EXPECT_EQ("OK:\n", run("restart"));
        before = run("status");
        EXPECT_EQ("OK:" + std::string(status) + "\n", before) << argument;
    }
    EXPECT_EQ("ERR", run("masters").substr(0, 3));
    EXPECT_EQ("ERR", run("").substr(0, 3));
    EXPECT_EQ(ptp + " status", rig.instrument.commandsRun().front());
    EXPECT_EQ(2u + 4u * std::size(roles) + 2u, rig.instrument.commandsRun().size());
}

TEST(Scripts, oscillatorTakesTheTwoClocksOfTheInstrument) {
    Rig rig(Scenario{});
    EXPECT_EQ("OK:", lastLine(rig.instrument.runCommand(vcxo + " set_clock 10")));
    EXPECT_EQ(0u, rig.word(0xB0000000)) << "the PLL lost its lock";
    EXPECT_EQ("ERR:range", lastLine(rig.instrument.runCommand(vcxo + " set_clock 12")));
    EXPECT_EQ(0u, rig.word(0xB0000000));
    EXPECT_EQ("OK:", lastLine(rig.instrument.runCommand(vcxo + " set_clock 15")));
    EXPECT_EQ(0x110u, rig.word(0xB0000000));
    rig.instrument.inject({.kind = FaultKind::ScriptRefuses});
    EXPECT_EQ("ERR:fault", lastLine(rig.instrument.runCommand(vcxo + " set_clock 10")));
    rig.instrument.inject({.kind = FaultKind::ScriptSilent});
    EXPECT_EQ("", rig.instrument.runCommand(vcxo + " set_clock 10"));
    EXPECT_EQ(0x110u, rig.word(0xB0000000)) << "nothing was switched";
}

TEST(Scripts, otherCommandsAreNotTheInstruments) {
    Rig rig(Scenario{});
    EXPECT_TRUE(rig.instrument.ownsCommand(ptp + " status"));
    EXPECT_TRUE(rig.instrument.ownsCommand(vcxo));
    EXPECT_FALSE(rig.instrument.ownsCommand(ptp + "x status"));
    EXPECT_FALSE(rig.instrument.ownsCommand("echo " + ptp));
    EXPECT_EQ("", rig.instrument.runCommand("echo 1"));
    EXPECT_TRUE(rig.instrument.commandsRun().empty());
}

class RootTest : public testing::Test {
protected:
    RootTest() : root_(fs::temp_directory_path() / ("kestrix-root-" + std::to_string(getpid()))) {}
    ~RootTest() override { fs::remove_all(root_); }

    std::string content(const std::string& file) {
        std::ifstream stream(root_ / file);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

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

TEST_F(RootTest, holdsEveryPlainFile) {
    Scenario scenario;
    scenario.serialNumber = 0xABCDEF;
    Instrument(scenario).populateRoot(root_.string());
    for (const char* file :
         {"board/leds/led2/brightness", "board/leds/led2/trigger", "sys/class/leds/alarm/brightness",
          "sys/class/gpio/gpio496/value", "sys/class/gpio/gpio504/value", "sys/class/gpio/gpio506/value",
          "sys/class/tolvn_korvel/tolvn_timing/irig_in_enabled", "sys/class/tolvn_korvel/tolvn_timing/irig_out_enabled",
          "sys/class/tolvn_korvel/tolvn_timing/igb_ptp_update_correction_ns", "sys/class/hwmon/hwmon0/temp1_input",
          "sys/class/hwmon/hwmon1/temp1_input", "sys/class/hwmon/hwmon2/temp3_input"}) {
        EXPECT_TRUE(fs::is_regular_file(root_ / file)) << file;
    }
    EXPECT_EQ("02:4b:53:ab:cd:ef\n", content("sys/class/net/eth0/address"));
    EXPECT_EQ("52300\n", content("sys/class/hwmon/hwmon2/temp1_input"));
}

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
    for (const std::string arguments : {"status", "master pps", "status", "restart", "status", "nonsense", "slave",
                                        "restart", "status"}) {
        EXPECT_EQ(instrument.runCommand(ptp + " " + arguments), shell(ptp + " " + arguments)) << arguments;
    }
    for (const std::string arguments : {"set_clock 10", "set_clock 11", "help"}) {
        EXPECT_EQ(instrument.runCommand(vcxo + " " + arguments), shell(vcxo + " " + arguments)) << arguments;
    }
}

}  // namespace
