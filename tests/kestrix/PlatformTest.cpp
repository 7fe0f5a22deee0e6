#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>
#include <system_error>

#include "modules/daq/daqdevices/kestrix/src/BoardMacAddress.h"
#include "modules/daq/daqdevices/kestrix/src/GpioChipBase.h"
#include "modules/daq/daqdevices/kestrix/src/LedBase.h"
#include "modules/daq/daqdevices/kestrix/src/PlatformPtpControl.h"
#include "modules/daq/daqdevices/kestrix/src/PlatformScript.h"
#include "modules/daq/daqdevices/kestrix/src/PlatformVCXOClockControl.h"
#include "tests/kestrix/KestrixFixture.h"

using namespace Harvane::RT::Modules::Daq;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixsim::Scenario;

namespace {

const std::string timingFolder = "/sys/class/tolvn_korvel/tolvn_timing/";

// Files of the instrument as they lie on this machine.
std::string contents(const std::string& path) {
    std::ifstream file(kestrixsim::rootFolder() + path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void setContents(const std::string& path, const std::string& text) {
    std::ofstream(kestrixsim::rootFolder() + path, std::ios::binary | std::ios::trunc) << text;
}

void removeFile(const std::string& path) {
    std::remove((kestrixsim::rootFolder() + path).c_str());
}

class PlatformTest : public KestrixFixture {
protected:
    PlatformTest() { kestrixsim::reset(Scenario{}); }

    static std::vector<std::string> commands() { return kestrixsim::instrument().commandsRun(); }

    static void injectScriptFault(FaultKind kind) {
        Fault fault;
        fault.kind = kind;
        fault.times = -1;
        kestrixsim::instrument().inject(fault);
    }
};

TEST_F(PlatformTest, ScriptsTakeArgumentsAndReplyWithoutTheirLineEnds) {
    const std::string path = testing::TempDir() + "kestrix_script_" + std::to_string(getpid()) + ".sh";
    {
        std::ofstream script(path);
        script << "#!/bin/sh\necho \"$#:$1:$2\"\nhead -c 1000 /dev/zero | tr '\\0' x\nprintf ' \\t\\n\\n'\nexit 3\n";
    }
    chmod(path.c_str(), 0755);
    EXPECT_EQ(Platform::runScript(path, {"one", "two"}), "2:one:two\n" + std::string(1000, 'x'));
    EXPECT_EQ(Platform::runScript(path, {"irig master"}), "2:irig:master\n" + std::string(1000, 'x'));
    std::remove(path.c_str());
}

struct StateCase {
    PlatformPtpControl::STATE state;
    const char* arguments;
    const char* irigIn;
    const char* irigOut;
    PlatformPtpControl::STATE readBack;
};

const StateCase stateCases[] = {
    {PlatformPtpControl::PTP_STATE_MASTER, "master", "0", "0", PlatformPtpControl::PTP_STATE_MASTER},
    {PlatformPtpControl::PTP_STATE_MASTER_PPS, "master pps", "1", "0", PlatformPtpControl::PTP_STATE_MASTER_PPS},
    {PlatformPtpControl::PTP_STATE_MASTER_STANDALONE, "master standalone", "0", "0",
     PlatformPtpControl::PTP_STATE_MASTER_STANDALONE},
    {PlatformPtpControl::PTP_STATE_SLAVE, "slave", "0", "0", PlatformPtpControl::PTP_STATE_SLAVE},
    {PlatformPtpControl::PTP_STATE_SLAVE_IRIG_OUT, "slave", "0", "1", PlatformPtpControl::PTP_STATE_SLAVE},
    {PlatformPtpControl::PTP_STATE_DISABLED_IRIG_OUT, "irig master", "0", "1", PlatformPtpControl::PTP_STATE_UNKNOWN},
    {PlatformPtpControl::PTP_STATE_DISABLED_IRIG_IN, "irig slave", "1", "0", PlatformPtpControl::PTP_STATE_UNKNOWN},
    {PlatformPtpControl::PTP_STATE_DISABLED, "disable", "0", "0", PlatformPtpControl::PTP_STATE_UNKNOWN},
};

TEST_F(PlatformTest, PtpStatesRunTheirScriptsAndSwitchTheLines) {
    const std::string script = "/opt/harvane/scripts/ptp_control.sh ";
    PlatformPtpControl control;
    for (const StateCase& expected : stateCases) {
        setContents(timingFolder + "irig_in_enabled", "?");
        setContents(timingFolder + "irig_out_enabled", "?");
        size_t before = commands().size();
        EXPECT_TRUE(control.setConfiguredState(expected.state));
        ASSERT_EQ(commands().size(), before + 1);
        EXPECT_EQ(commands().back(), script + expected.arguments);
        EXPECT_EQ(contents(timingFolder + "irig_in_enabled"), "?");
        EXPECT_EQ(contents(timingFolder + "irig_out_enabled"), "?");

        before = commands().size();
        EXPECT_TRUE(control.setActiveState(expected.state));
        ASSERT_EQ(commands().size(), before + 2);
        EXPECT_EQ(commands()[before], script + expected.arguments);
        EXPECT_EQ(commands()[before + 1], script + "restart");
        EXPECT_EQ(contents(timingFolder + "irig_in_enabled"), expected.irigIn);
        EXPECT_EQ(contents(timingFolder + "irig_out_enabled"), expected.irigOut);
        EXPECT_EQ(control.getState(), expected.readBack) << expected.arguments;
    }
    const size_t before = commands().size();
    EXPECT_FALSE(control.setActiveState(PlatformPtpControl::PTP_STATE_UNKNOWN));
    EXPECT_FALSE(control.setActiveState(static_cast<PlatformPtpControl::STATE>(9)));
    EXPECT_EQ(commands().size(), before);
}

TEST_F(PlatformTest, RefusedPtpStateLeavesTheLinesAlone) {
    PlatformPtpControl control;
    setContents(timingFolder + "irig_in_enabled", "?");
    for (const FaultKind kind : {FaultKind::ScriptRefuses, FaultKind::ScriptSilent}) {
        injectScriptFault(kind);
        EXPECT_FALSE(control.setActiveState(PlatformPtpControl::PTP_STATE_MASTER_PPS));
        EXPECT_FALSE(control.setConfiguredState(PlatformPtpControl::PTP_STATE_MASTER_PPS));
        EXPECT_EQ(control.getState(), PlatformPtpControl::PTP_STATE_UNKNOWN);
        kestrixsim::instrument().clearFaults();
    }
    EXPECT_EQ(contents(timingFolder + "irig_in_enabled"), "?");
}

TEST_F(PlatformTest, StatusRepliesTellTheState) {
    struct Case {
        const char* reply;
        PlatformPtpControl::STATE state;
    };
    const Case cases[] = {
        {"OK:", PlatformPtpControl::PTP_STATE_UNKNOWN},
        {"", PlatformPtpControl::PTP_STATE_UNKNOWN},
        {"ERR:mode=slave", PlatformPtpControl::PTP_STATE_UNKNOWN},
        {"log line\nOK:mode=slave", PlatformPtpControl::PTP_STATE_UNKNOWN},
        {"OK:mode=slave", PlatformPtpControl::PTP_STATE_SLAVE},
        {"OK:mode=slave;pps_mode=pps", PlatformPtpControl::PTP_STATE_SLAVE},
        {"OK:mode=master", PlatformPtpControl::PTP_STATE_MASTER},
        {"OK:mode=master;pps_mode=", PlatformPtpControl::PTP_STATE_MASTER},
        {"OK:mode=master;pps_mode=other", PlatformPtpControl::PTP_STATE_MASTER},
        {"OK:mode=master;pps_mode=pps", PlatformPtpControl::PTP_STATE_MASTER_PPS},
        {"OK:pps_mode=standalone;mode=master;", PlatformPtpControl::PTP_STATE_MASTER_STANDALONE},
        {"OK:mode=slave;mode=master", PlatformPtpControl::PTP_STATE_SLAVE},
        {"OK:mode=disabled;pps_mode=none", PlatformPtpControl::PTP_STATE_UNKNOWN},
        {"OK:pps_mode=pps", PlatformPtpControl::PTP_STATE_UNKNOWN},
        {"OK:mode=", PlatformPtpControl::PTP_STATE_UNKNOWN},
        {"OK:mode", PlatformPtpControl::PTP_STATE_UNKNOWN},
    };
    for (const Case& expected : cases) {
        EXPECT_EQ(PlatformPtpControl::stateOf(expected.reply), expected.state) << expected.reply;
    }
}

TEST_F(PlatformTest, MissingLineIsAnErrorAndMissingCorrectionARefusal) {
    PlatformPtpControl control;
    EXPECT_TRUE(control.setPpsToPtpDelay(-410));
    EXPECT_EQ(contents(timingFolder + "igb_ptp_update_correction_ns"), "-410");
    removeFile(timingFolder + "igb_ptp_update_correction_ns");
    EXPECT_FALSE(control.setPpsToPtpDelay(410));
    removeFile(timingFolder + "irig_in_enabled");
    try {
        control.setActiveState(PlatformPtpControl::PTP_STATE_SLAVE);
        FAIL();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_NE(std::string(error.what()).find("irig_in_enabled"), std::string::npos);
    }
}

TEST_F(PlatformTest, OscillatorScriptIsJudgedByItsLastLine) {
    PlatformVCXOClockControl control;
    EXPECT_TRUE(control.setClock(PlatformVCXOClockControl::CLOCK_10_MHZ));
    EXPECT_EQ(commands().back(), "/opt/harvane/scripts/vcxo_control.sh set_clock 10");
    EXPECT_FALSE(control.setClock(static_cast<PlatformVCXOClockControl::ClockOption>(12)));
    for (const FaultKind kind : {FaultKind::ScriptRefuses, FaultKind::ScriptSilent}) {
        injectScriptFault(kind);
        EXPECT_FALSE(control.setClock(PlatformVCXOClockControl::CLOCK_15_MHZ));
        kestrixsim::instrument().clearFaults();
    }
}

TEST_F(PlatformTest, LedsFallBackToTheKernelsFolder) {
    // One of the folders is there; the other is added or taken away by hand.
    const std::string own = "/board/leds/led2/brightness";
    const std::string fallback = "/sys/class/leds/led2/brightness";
    mkdir((kestrixsim::rootFolder() + "/board").c_str(), 0755);
    mkdir((kestrixsim::rootFolder() + "/board/leds").c_str(), 0755);
    mkdir((kestrixsim::rootFolder() + "/board/leds/led2").c_str(), 0755);
    setContents(own, "0");
    setContents(fallback, "0");
    StatusLed::set(200);
    EXPECT_EQ(contents(own), "200");
    EXPECT_EQ(contents(fallback), "0");
    EXPECT_EQ(StatusLed::get(), 200);

    removeFile(own);
    StatusLed::set(7);
    EXPECT_EQ(contents(fallback), "7");
    setContents(fallback, "300\n");
    EXPECT_EQ(StatusLed::get(), 300 - 256);
    setContents(fallback, "");
    EXPECT_THROW(StatusLed::get(), std::runtime_error);

    removeFile("/board/leds/led2/trigger");
    StatusLed::blink(true);
    EXPECT_EQ(contents("/sys/class/leds/led2/trigger"), std::string("timer\0", 6));
    StatusLed::blink(false);
    EXPECT_EQ(contents("/sys/class/leds/led2/trigger"), std::string("none\0\0", 6));

    removeFile(fallback);
    EXPECT_THROW(StatusLed::set(1), std::system_error);
}

TEST_F(PlatformTest, LedsShowTheStartOfAMeasurement) {
    bringUp(warmScenario(1));
    use({0});
    const auto led = [](const char* name, const char* file) {
        const std::string path = std::string("/leds/") + name + "/" + file;
        const std::string own = contents("/board" + path);
        return std::string((own.empty() ? contents("/sys/class" + path) : own).c_str());
    };
    AlarmLed::set(255);
    start();
    EXPECT_EQ(led("led2", "trigger"), "timer");
    EXPECT_EQ(AlarmLed::get(), 0);
    stop();

    controller->operationMode = 1;
    AlarmLed::set(255);
    StatusLed::set(0);
    start();
    EXPECT_EQ(led("led2", "trigger"), "none");
    EXPECT_EQ(StatusLed::get(), 255);
    EXPECT_EQ(AlarmLed::get(), 255);
    stop();
}

TEST_F(PlatformTest, GpioLinesCountFromTheChipsBase) {
    BoardGpio::set(10, true);
    EXPECT_EQ(contents("/sys/class/gpio/gpio506/value"), "1");
    EXPECT_TRUE(BoardGpio::get(10));
    BoardGpio::set(10, false);
    EXPECT_FALSE(BoardGpio::get(10));
    setContents("/sys/class/gpio/gpio505/value", "");
    EXPECT_THROW(BoardGpio::get(9), std::runtime_error);
    EXPECT_THROW(BoardGpio::set(99, true), std::system_error);
}

TEST_F(PlatformTest, NetworkAddressHasNoLineEnd) {
    setContents("/sys/class/net/eth0/address", "02:a0:b1:c2:d3:e4\n");
    EXPECT_EQ(board_mac_address(), "02:a0:b1:c2:d3:e4");
    setContents("/sys/class/net/eth0/address", "");
    EXPECT_EQ(board_mac_address(), "");
}

}  // namespace
