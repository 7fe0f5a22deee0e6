#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <tuple>

#include "modules/daq/daqdevices/kestrix/src/BoardMacAddress.h"
#include "modules/daq/daqdevices/kestrix/src/GpioChipBase.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"
#include "modules/daq/daqdevices/kestrix/src/LedBase.h"
#include "modules/daq/daqdevices/kestrix/src/PlatformPtpControl.h"
#include "modules/daq/daqdevices/kestrix/src/PlatformScript.h"
#include "modules/daq/daqdevices/kestrix/src/PlatformVCXOClockControl.h"
#include "modules/daq/objectmodel/Channel.h"
#include "tests/kestrix/KestrixFixture.h"
#include "tests/registers/LogCapture.h"

using namespace Harvane::RT::Modules::Daq;
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

struct PlatformTest : KestrixFixture {
    PlatformTest() { kestrixsim::reset(Scenario{}); }

    static std::vector<std::string> commands() { return kestrixsim::instrument().commandsRun(); }
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

// What a script keeps open, a daemon that it starts keeps open: streams would run on after the module's end.
TEST_F(PlatformTest, ScriptsHoldNothingOfTheInstrument) {
    bringUp(warmScenario(2));
    use({0, 3});
    start();
    const auto scriptHolds = [] {
        return Platform::runScript("ls -l /proc/self/fd", {}).find("kestrix-device") != std::string::npos;
    };
    EXPECT_GE(kestrixsim::openDescriptors(), 8);  // memory, I2C, multiplexer, port, two streams a slot
    EXPECT_FALSE(scriptHolds());
    const int passedOn = open("/dev/i2c-1", O_RDWR);
    EXPECT_TRUE(scriptHolds());
    close(passedOn);
    stop();
}

// The cycle reads them.
TEST_F(PlatformTest, StreamsAreOpenedSoThatAReadNeverWaits) {
    kestrixsim::reset(warmScenario(1));
    const int next = dup(STDERR_FILENO);  // takes the lowest free descriptor
    close(next);
    const KestrixKernel kernel(1);
    EXPECT_EQ(fcntl(next, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(PlatformTest, PtpStatesRunTheirScriptsAndSwitchTheLines) {
    using P = PlatformPtpControl;
    // irig: the lines in and out.
    const std::tuple<P::STATE, const char*, std::string, P::STATE> cases[] = {
        {P::PTP_STATE_MASTER, "master", "00", P::PTP_STATE_MASTER},
        {P::PTP_STATE_MASTER_PPS, "master pps", "10", P::PTP_STATE_MASTER_PPS},
        {P::PTP_STATE_MASTER_STANDALONE, "master standalone", "00", P::PTP_STATE_MASTER_STANDALONE},
        {P::PTP_STATE_SLAVE, "slave", "00", P::PTP_STATE_SLAVE},
        {P::PTP_STATE_SLAVE_IRIG_OUT, "slave", "01", P::PTP_STATE_SLAVE},
        {P::PTP_STATE_DISABLED_IRIG_OUT, "irig master", "01", P::PTP_STATE_UNKNOWN},
        {P::PTP_STATE_DISABLED_IRIG_IN, "irig slave", "10", P::PTP_STATE_UNKNOWN},
        {P::PTP_STATE_DISABLED, "disable", "00", P::PTP_STATE_UNKNOWN},
    };
    const auto lines = [] {
        return contents(timingFolder + "irig_in_enabled") + contents(timingFolder + "irig_out_enabled");
    };
    const std::string script = "/opt/harvane/scripts/ptp_control.sh ";
    P control;
    std::vector<std::string> expected = commands();
    for (const auto& [state, arguments, irig, readBack] : cases) {
        setContents(timingFolder + "irig_in_enabled", "?");
        setContents(timingFolder + "irig_out_enabled", "?");
        for (const FaultKind kind : {FaultKind::ScriptRefuses, FaultKind::ScriptSilent}) {
            inject({.kind = kind, .times = -1});
            EXPECT_FALSE(control.setActiveState(state));
            EXPECT_FALSE(control.setConfiguredState(state));
            EXPECT_EQ(control.getState(), P::PTP_STATE_UNKNOWN);
            clearFaults();
        }
        expected = commands();
        EXPECT_TRUE(control.setConfiguredState(state));
        EXPECT_EQ(lines(), "??");
        EXPECT_TRUE(control.setActiveState(state));
        EXPECT_EQ(lines(), irig);
        EXPECT_EQ(control.getState(), readBack) << arguments;
        for (const char* argument : {arguments, arguments, "restart", "status"}) {
            expected.push_back(script + argument);
        }
        EXPECT_EQ(commands(), expected);
    }
    EXPECT_FALSE(control.setActiveState(P::PTP_STATE_UNKNOWN));
    EXPECT_FALSE(control.setActiveState(static_cast<P::STATE>(9)));
    EXPECT_EQ(commands(), expected);
}

// Where two lines would drive each other, the order counts: the second one is only touched when the first is set.
TEST_F(PlatformTest, IrigLinesAreSwitchedInTheOrderOfTheState) {
    using P = PlatformPtpControl;
    const std::string in = timingFolder + "irig_in_enabled";
    const std::string out = timingFolder + "irig_out_enabled";
    P control;
    for (int state = P::PTP_STATE_MASTER; state <= P::PTP_STATE_DISABLED; ++state) {
        const bool outputFirst = state == P::PTP_STATE_SLAVE_IRIG_OUT || state == P::PTP_STATE_DISABLED_IRIG_OUT;
        const std::string& first = outputFirst ? out : in;
        const std::string& second = outputFirst ? in : out;
        setContents(first, "?");
        removeFile(second);
        EXPECT_THROW(control.setActiveState(static_cast<P::STATE>(state)), std::system_error) << state;
        EXPECT_NE(contents(first), "?") << state;
        setContents(second, "?");
        removeFile(first);
        EXPECT_THROW(control.setActiveState(static_cast<P::STATE>(state)), std::system_error) << state;
        EXPECT_EQ(contents(second), "?") << state;
        setContents(first, "?");
    }
}

TEST_F(PlatformTest, StatusRepliesTellTheState) {
    using P = PlatformPtpControl;
    const std::pair<const char*, P::STATE> cases[] = {
        {"OK:", P::PTP_STATE_UNKNOWN},
        {"ERR:mode=slave", P::PTP_STATE_UNKNOWN},
        {"log line\nOK:mode=slave", P::PTP_STATE_UNKNOWN},
        {"OK:mode=slave;pps_mode=pps", P::PTP_STATE_SLAVE},
        {"OK:mode=slave;mode=master", P::PTP_STATE_SLAVE},
        {"OK:mode=master", P::PTP_STATE_MASTER},
        {"OK:mode=master;pps_mode=", P::PTP_STATE_MASTER},
        {"OK:mode=master;pps_mode=other", P::PTP_STATE_MASTER},
        {"OK:mode=master;pps_mode=pps", P::PTP_STATE_MASTER_PPS},
        {"OK:pps_mode=standalone;mode=master;", P::PTP_STATE_MASTER_STANDALONE},
        {"OK:pps_mode=pps", P::PTP_STATE_UNKNOWN},
        {"OK:mode=", P::PTP_STATE_UNKNOWN},
        {"OK:mode", P::PTP_STATE_UNKNOWN},
    };
    for (const auto& [reply, state] : cases) {
        EXPECT_EQ(P::stateOf(reply), state) << reply;
    }
}

TEST_F(PlatformTest, MissingCorrectionIsARefusal) {
    PlatformPtpControl control;
    EXPECT_TRUE(control.setPpsToPtpDelay(-410));
    EXPECT_EQ(contents(timingFolder + "igb_ptp_update_correction_ns"), "-410");
    removeFile(timingFolder + "igb_ptp_update_correction_ns");
    EXPECT_FALSE(control.setPpsToPtpDelay(410));
}

TEST_F(PlatformTest, OscillatorScriptIsJudgedByItsLastLine) {
    PlatformVCXOClockControl control;
    EXPECT_TRUE(control.setClock(PlatformVCXOClockControl::CLOCK_10_MHZ));
    EXPECT_FALSE(control.setClock(static_cast<PlatformVCXOClockControl::ClockOption>(12)));
    inject({.kind = FaultKind::ScriptSilent});
    EXPECT_FALSE(control.setClock(PlatformVCXOClockControl::CLOCK_15_MHZ));
}

TEST_F(PlatformTest, LedsFallBackToTheKernelsFolder) {
    // One of the folders is there; the other is added or taken away by hand.
    const std::string own = "/board/leds/led2/brightness";
    const std::string fallback = "/sys/class/leds/led2/brightness";
    std::filesystem::create_directories(kestrixsim::rootFolder() + "/board/leds/led2");
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
        const std::string text = own.empty() ? contents("/sys/class" + path) : own;
        return text.substr(0, text.find('\0'));
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

TEST_F(PlatformTest, MissingLampIsNoReasonNotToMeasure) {
    bringUp(warmScenario(1));
    use({0});
    int missing = 0;
    for (const auto& [file, mode, lines] :
         {std::tuple{"led2/trigger", 2, 1}, {"led2/brightness", 1, 2}, {"alarm/brightness", 2, 2}}) {
        AlarmLed::set(255);
        removeFile(std::string("/board/leds/") + file);
        removeFile(std::string("/sys/class/leds/") + file);
        controller->operationMode = mode;
        {
            const kestrixtest::LogCapture log(4);
            start();
            EXPECT_EQ(std::ranges::count_if(log.all(),
                                            [](const std::string& line) {
                                                return line.starts_with("4 unable to drive LED ") &&
                                                       line.ends_with(": No such file or directory");
                                            }),
                      lines)
                << file;
        }
        if (missing++ == 0) {
            EXPECT_EQ(AlarmLed::get(), 0);  // this lamp shows its state all the same
        }
        acquire(channel(0), 1);
        stop();
    }
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
