#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "shared/libraries/kestrix/src/AmplifierProperties.h"
#include "simulator/preload/Control.h"
#include "tests/amplifierlink/LogCapture.h"
#include "tests/amplifierlink/ScriptedModule.h"

// The protocol against a peer that sends what it is told, behind the simulated multiplexer.
namespace {

using namespace Harvane::Shared::Kestrix;
using kestrixtest::LogCapture;
using kestrixtest::ScriptedModule;
using Strings = std::vector<std::string>;
using Bytes = std::vector<unsigned char>;

const std::string ok = ScriptedModule::acknowledge();
const std::string refused = ScriptedModule::refuse();
const std::string silent;

std::string withData(const std::string& bytes) {
    return ScriptedModule::frame("00 " + bytes);
}

class AmplifierProtocol : public testing::Test {
protected:
    AmplifierProtocol() {
        kestrixsim::reset(kestrixsim::Scenario{});
        auto uart = std::make_shared<AmplifierProperties::Uart>(module.path(), B38400, 200);
        uart->openDeviceFile();
        uart->initialize();
        mux = std::make_shared<UartMux>("/dev/i2c-1", board_t::eightChannels);
        amplifier = std::make_unique<AmplifierProperties>(index, uart, mux);
    }

    // Replies of the nine reads of the identity.
    static Strings identity(const std::string& scale, const std::string& offset) {
        return {withData("02"),
                withData("03 01"),
                withData("02 00 00 00"),
                withData("2A 00 00 00 00 00 00 80"),
                withData("80 8A 55 69 00 00 00 00"),
                withData("01"),
                withData("02"),
                withData("03"),
                withData(scale),
                withData(offset)};
    }
    static constexpr const char* two = "00 00 00 40";          // 2.0
    static constexpr const char* fiveHundred = "00 00 FA 43";  // 500.0
    static constexpr const char* notANumber = "00 00 C0 7F";
    static constexpr const char* infinite = "00 00 80 7F";

    static constexpr int index = 3;
    ScriptedModule module;
    std::shared_ptr<UartMux> mux;
    std::unique_ptr<AmplifierProperties> amplifier;
};

std::string failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "no failure";
}

TEST_F(AmplifierProtocol, everyOperationSendsItsFrame) {
    using A = AmplifierProperties;
    struct {
        const char* frame;
        std::function<void(A&)> run;
    } const cases[] = {
        {"A5 01 67 5A", [](A& a) { a.sendCommand(0x67, 500, false); }},
        {"A5 01 40 5A", [](A& a) { unsigned char v; a.getLatestSupportedCalibrationStructureVersion(v); }},
        {"A5 02 41 01 5A", [](A& a) { a.setRawMode(true); }},
        {"A5 01 42 5A", [](A& a) { a.getRawMode(); }},
        {"A5 06 45 34 12 02 AA 55 5A",
         [](A& a) { const Bytes b{0xAA, 0x55}; a.writeCalibrationData(0x1234, b.data(), 2); }},
        {"A5 04 46 34 12 10 5A", [](A& a) { Bytes b(16); a.readCalibrationData(0x1234, b.data(), 16); }},
        {"A5 01 47 5A", [](A& a) { unsigned short size; a.getCalibrationDataSize(size); }},
        {"A5 09 48 08 07 06 05 04 03 02 01 5A", [](A& a) { a.setCalibrationDate(0x0102030405060708); }},
        {"A5 01 49 5A", [](A& a) { long date; a.readCalibrationDate(date); }},
        {"A5 01 49 5A", [](A& a) { a.eraseFlash(); }},
        {"A5 04 50 01 02 03 5A", [](A& a) { const Bytes b{1, 2, 3}; a.writeFlash(b.data(), b.size()); }},
        {"A5 01 53 5A", [](A& a) { a.exitBootLoad(); }},
        {"A5 01 57 5A", [](A& a) { a.goBootLoad(); }},
        {"A5 01 5B 5A", [](A& a) { a.hwReset(); }},
        {"A5 02 60 01 5A", [](A& a) { a.setMeasurementType(1); }},
        {"A5 01 61 5A", [](A& a) { a.readMeasurementType(); }},
        {"A5 02 62 02 5A", [](A& a) { a.setConnectorType(2); }},
        {"A5 01 63 5A", [](A& a) { a.readConnectorType(); }},
        {"A5 02 64 03 5A", [](A& a) { a.setHwCapabilities(3); }},
        {"A5 01 65 5A", [](A& a) { a.readHwCapabilities(); }},
        {"A5 01 66 5A", [](A& a) { a.readFwCapabilities(); }},
        {"A5 01 67 5A", [](A& a) { a.updateAmplifier(); }},
        {"A5 02 68 04 5A", [](A& a) { a.setExcitationUnit(4); }},
        {"A5 01 69 5A", [](A& a) { a.readExcitationUnit(); }},
        {"A5 02 6A 05 5A", [](A& a) { a.setExcitationType(5); }},
        {"A5 01 6B 5A", [](A& a) { a.readExcitationType(); }},
        {"A5 01 9F 5A", [](A& a) { a.readLPFilter(); }},
        {"A5 09 A1 2A 00 00 00 00 00 00 00 5A", [](A& a) { a.setSerial("2A"); }},
        {"A5 01 A3 5A", [](A& a) { unsigned long serial; a.readSerial(serial); }},
        {"A5 05 A4 01 02 03 04 5A", [](A& a) { a.setHwVersion("1.2..3.4."); }},
        {"A5 01 A6 5A", [](A& a) { unsigned char v[4]; a.readHwVersion(v[0], v[1], v[2], v[3]); }},
        {"A5 01 A7 5A", [](A& a) { a.readModuleType(); }},
        {"A5 01 AA 5A", [](A& a) { unsigned char v[2]; a.readFwVersion(v[0], v[1]); }},
        {"A5 02 B7 01 5A", [](A& a) { a.setShort(1); }},
        {"A5 01 B8 5A", [](A& a) { a.readShort(); }},
        {"A5 05 B9 00 00 20 40 5A", [](A& a) { a.setExcitationValue(2.5f); }},
        {"A5 01 BA 5A", [](A& a) { a.readExcitationValue(); }},
        {"A5 02 BC 05 5A", [](A& a) { a.setRange(5); }},
        {"A5 01 BD 5A", [](A& a) { a.readRange(); }},
        {"A5 02 C3 01 5A", [](A& a) { a.setInputCoupling(1); }},
        {"A5 01 C4 5A", [](A& a) { a.readInputCoupling(); }},
        {"A5 02 C7 09 5A", [](A& a) { a.setAlarm(9); }},
        {"A5 02 C8 02 5A", [](A& a) { a.setLPFilter(2); }},
        {"A5 02 C9 01 5A", [](A& a) { a.setInputType(1); }},
        {"A5 01 CA 5A", [](A& a) { a.readInputType(); }},
        {"A5 01 D0 5A", [](A& a) { Bytes b(8); a.readTeds(b.data()); }},
        {"A5 02 D1 01 5A", [](A& a) { a.resetTedsCustom(); }},
        {"A5 04 D1 02 07 08 5A", [](A& a) { const Bytes b{7, 8}; a.writeTedsCustom(b.data(), 2); }},
        {"A5 02 D1 02 5A", [](A& a) { a.writeTedsCustom(nullptr, 0); }},
        {"A5 03 D1 03 20 5A", [](A& a) { Bytes b(32); a.readTedsCustom(b.data(), 32); }},
        {"A5 02 D1 04 5A", [](A& a) { a.finalizeTedsCustom(); }},
        {"A5 03 E0 01 02 5A", [](A& a) { a.setDoLevelInvert(1, 2); }},
        {"A5 03 EA 01 02 5A", [](A& a) { a.setCmrSetting(1, 2, false); }},
        {"A5 02 EB 06 5A", [](A& a) { unsigned char v[2]; a.getCmrSetting(6, v[0], v[1]); }},
        {"A5 03 EC 01 02 5A", [](A& a) { a.setCmrSetting(1, 2, true); }},
        {"A5 01 F0 5A", [](A& a) { a.getSensorStatus(); }},
        {"A5 02 F2 00 5A", [](A& a) { a.setLed1Function(false); }},
        {"A5 02 F2 01 5A", [](A& a) { a.setLed1Function(true); }},
        {"A5 02 F7 03 5A", [](A& a) { a.setPattern(3); }},
        {"A5 01 F8 5A", [](A& a) { a.getPattern(); }},
    };
    for (const auto& entry : cases) {
        entry.run(*amplifier);
        EXPECT_EQ(module.takeRequests(), Strings{entry.frame});
    }
    amplifier->updateScaling();
    EXPECT_EQ(module.takeRequests(), (Strings{"A5 01 FA 5A", "A5 01 FB 5A"}));
}

TEST_F(AmplifierProtocol, resultFollowsTheLengthOfTheReply) {
    using A = AmplifierProperties;
    const auto serial = [](A& a) { unsigned long v = 0; return a.readSerial(v); };
    const auto date = [](A& a) { long v = 0; return a.readCalibrationDate(v); };
    const auto hwVersion = [](A& a) { unsigned char v[4]; return a.readHwVersion(v[0], v[1], v[2], v[3]); };
    const auto fwVersion = [](A& a) { unsigned char v[2]; return a.readFwVersion(v[0], v[1]); };
    const auto cmr = [](A& a) { unsigned char v[2]; return a.getCmrSetting(0, v[0], v[1]); };
    const auto teds = [](A& a) { Bytes b(8); return a.readTeds(b.data()); };
    const auto custom = [](A& a) { Bytes b(4); return a.readTedsCustom(b.data(), 4); };
    const auto excitation = [](A& a) { return a.readExcitationValue(); };
    const auto size = [](A& a) { unsigned short v = 0; return a.getCalibrationDataSize(v) ? v : -1; };
    struct {
        std::string reply;
        std::function<double(A&)> run;
        double result;
    } const cases[] = {
        {withData("07"), [](A& a) { return a.readRange(); }, 7},
        {withData("FF"), [](A& a) { return a.readLPFilter(); }, 255},
        {ok, [](A& a) { return a.readRange(); }, -1},
        {withData("01"), [](A& a) { return a.getRawMode(); }, 1},
        {withData("02"), [](A& a) { return a.getRawMode(); }, 0},
        {withData("01 01"), [](A& a) { return a.getRawMode(); }, 0},
        {withData("05"), [](A& a) { return a.getSensorStatus(); }, 5},
        {ok, [](A& a) { return a.getSensorStatus(); }, 0},
        {withData("01 02 03 04 05 06 07 08"), serial, 9},
        {withData("01 02 03 04 05 06 07"), serial, -1},
        {withData("01 02 03 04 05 06 07 08"), date, 9},
        {withData("01 02 03 04 05 06 07"), date, -1},
        {withData("01 02 03 04"), hwVersion, 5},
        {withData("01 02 03"), hwVersion, -1},
        {withData("01 02"), fwVersion, 3},
        {withData("01"), fwVersion, -1},
        {withData("01 02"), cmr, 3},
        {withData("01"), cmr, -1},
        {withData("01 02 03 04 05 06 07"), teds, 0},
        {withData("01 02 03 04 05 06"), teds, -1},
        {withData("01 02 03 04"), custom, 0},
        {withData("01 02 03"), custom, 0},
        {withData("01 02"), custom, -1},
        {withData("00 00 20 40"), excitation, 2.5},
        {withData("00 00 20"), excitation, -1.0},
        {withData("00 01"), size, 256},
        {withData("00 01 00"), size, -1},
        {ok, [](A& a) { return a.updateAmplifier(); }, 1},
        {ok, [](A& a) { return a.setAlarm(1); }, 1},
        {ok, [](A& a) { return a.resetTedsCustom(); }, 0},
        {ok, [](A& a) { return a.finalizeTedsCustom(); }, 0},
        {ok, [](A& a) { return a.setRange(1); }, 1},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.reply);
        module.script({entry.reply});
        EXPECT_EQ(entry.run(*amplifier), entry.result);
    }

    unsigned char second = 0;
    unsigned char first = 0;
    module.script({withData("11 22")});
    amplifier->getCmrSetting(0, second, first);
    EXPECT_EQ(first, 0x11);
    EXPECT_EQ(second, 0x22);

    unsigned char version = 0;
    module.script({ok, withData("02")});
    EXPECT_FALSE(amplifier->getLatestSupportedCalibrationStructureVersion(version));
    EXPECT_EQ(version, 1);
    EXPECT_TRUE(amplifier->getLatestSupportedCalibrationStructureVersion(version));
    EXPECT_EQ(version, 2);
}

TEST_F(AmplifierProtocol, failedExchangeBecomesEachOperationsFailure) {
    using A = AmplifierProperties;
    const std::function<double(A&)> cases[] = {
        [](A& a) { return a.readRange(); },
        [](A& a) { return a.getSensorStatus(); },
        [](A& a) { Bytes b(8); return a.readTeds(b.data()); },
        [](A& a) { return a.resetTedsCustom(); },
        [](A& a) { return a.writeTedsCustom(nullptr, 0); },
        [](A& a) { Bytes b(8); return a.readTedsCustom(b.data(), 0); },
        [](A& a) { return a.finalizeTedsCustom(); },
        [](A& a) { return a.updateAmplifier(); },
        [](A& a) { return a.hwReset(); },
        [](A& a) { return a.writeCalibrationData(0, nullptr, 0); },
        [](A& a) { return a.readExcitationValue(); },
    };
    LogCapture log(7);
    for (const auto& run : cases) {
        module.script({refused, refused, refused});
        EXPECT_EQ(run(*amplifier), -1.0);
        EXPECT_EQ(module.takeRequests().size(), 3u);
    }
}

TEST_F(AmplifierProtocol, frameIsFoundInWhatArrives) {
    struct {
        const char* name;
        std::string reply;
    } const cases[] = {
        {"noise in front", "FF FF A5 02 00 5B 5A"},
        {"key in front that leads nowhere", "A5 03 11 A5 02 00 5B 5A"},
        {"key in front whose length leaves the buffer", "A5 F0 A5 02 00 5B 5A"},
        {"two parts", "A5 02 / 00 5B 5A"},
        {"byte by byte", "A5 / 02 / 00 / 5B / 5A"},
        {"more behind it", "A5 02 00 5B 5A A5 02 00 11 5A"},
        {"noise longer than one read", [] {
             std::string text;
             for (int n = 0; n < 100; ++n)
                 text += "A5 ";
             return text + "A5 02 00 5B 5A";
         }()},
    };
    LogCapture log;
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.name);
        module.script({entry.reply});
        EXPECT_EQ(amplifier->readRange(), 0x5B);
        EXPECT_EQ(module.takeRequests().size(), 1u);
    }
    EXPECT_EQ(log.lines(), Strings{});

    // Keys and end marks inside the data.
    Bytes buffer(5);
    module.script({withData("A5 5A A5 01 5A")});
    EXPECT_EQ(amplifier->readCalibrationData(0, buffer.data(), 5), 6);
    EXPECT_EQ(buffer, (Bytes{0xA5, 0x5A, 0xA5, 0x01, 0x5A}));
}

TEST_F(AmplifierProtocol, longestReplyFillsTheReceiveBuffer) {
    std::string bytes;
    for (int n = 0; n < 124; ++n)
        bytes += n == 0 ? "11" : " 11";
    module.script({withData(bytes)});
    Bytes buffer(125);
    EXPECT_EQ(amplifier->readCalibrationData(0, buffer.data(), 124), 125);
    EXPECT_EQ(buffer, [] { Bytes expected(124, 0x11); expected.push_back(0); return expected; }());
}

TEST_F(AmplifierProtocol, onlyWhatTheModuleSentIsCopied) {
    Bytes buffer(16, 0xEE);
    module.script({withData("01 02 03 04")});
    EXPECT_EQ(amplifier->readCalibrationData(0, buffer.data(), 16), 5);
    Bytes expected(16, 0xEE);
    for (unsigned char n = 0; n < 4; ++n)
        expected[n] = static_cast<unsigned char>(n + 1);
    EXPECT_EQ(buffer, expected);
}

TEST_F(AmplifierProtocol, whatCannotFitIsNotSent) {
    Bytes buffer(512);
    EXPECT_EQ(amplifier->readCalibrationData(0, buffer.data(), 125), -1);
    EXPECT_EQ(amplifier->readTedsCustom(buffer.data(), 125), -1);
    EXPECT_EQ(amplifier->writeCalibrationData(0, buffer.data(), 252), -1);
    EXPECT_EQ(amplifier->writeTedsCustom(buffer.data(), 254), -1);
    EXPECT_EQ(amplifier->writeFlash(buffer.data(), 255), -1);
    EXPECT_EQ(module.takeRequests(), Strings{});
    EXPECT_EQ(amplifier->writeFlash(buffer.data(), 254), 1);
}

TEST_F(AmplifierProtocol, refusalIsTriedThreeTimes) {
    {
        LogCapture log;
        module.script({refused, refused, refused});
        EXPECT_EQ(amplifier->sendCommand(0x67, 500, true), -1);  // without payload it is never quiet
        EXPECT_EQ(module.takeRequests(), Strings(3, "A5 01 67 5A"));
        const std::string line = "5 Amplifier index 3 error: Command failed failed! Command 103!";
        EXPECT_EQ(log.lines(), (Strings{line, line, line, "5 Amplifier index 3 retransmit error!"}));
    }
    LogCapture log;
    Bytes buffer(8);
    module.script({refused, refused, refused});
    EXPECT_EQ(amplifier->readTeds(buffer.data()), -1);
    const std::string line = "2 Amplifier index 3 error: Command failed failed! Command 208!";
    EXPECT_EQ(log.lines(), (Strings{line, line, line, "2 Amplifier index 3 retransmit error!"}));
}

TEST_F(AmplifierProtocol, secondAttemptCanSucceed) {
    LogCapture log;
    module.script({"A5 02 00", refused, withData("04")});
    EXPECT_EQ(amplifier->readRange(), 4);
    EXPECT_EQ(module.takeRequests().size(), 3u);
    EXPECT_EQ(log.lines(), (Strings{"5 Amplifier index 3 error: Timeout failed! Command 189!",
                                    "5 Amplifier index 3 error: Command failed failed! Command 189!"}));
}

TEST_F(AmplifierProtocol, silenceEndsEachAttemptAfterItsTimeout) {
    LogCapture log;
    module.script({silent, silent, silent});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(amplifier->sendCommand(0x57, 400, false), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3 * 400));
    EXPECT_EQ(module.takeRequests().size(), 3u);
    const std::string line = "5 Amplifier index 3 error: Timeout failed! Command 87!";
    EXPECT_EQ(log.lines(), (Strings{line, line, line, "5 Amplifier index 3 retransmit error!"}));
}

TEST_F(AmplifierProtocol, endlessNoiseIsAnOverflowThatIsNeverQuiet) {
    std::string noise;
    for (int n = 0; n < 140; ++n)
        noise += "11 ";
    LogCapture log;
    Bytes buffer(8);
    module.script({noise, noise, noise});
    EXPECT_EQ(amplifier->readTeds(buffer.data()), -1);
    const std::string line = "5 Amplifier index 3 error: UART received data overflow failed! Command 208!";
    EXPECT_EQ(log.lines(), (Strings{line, line, line, "2 Amplifier index 3 retransmit error!"}));
}

TEST_F(AmplifierProtocol, whatCameAfterOneExchangeIsFlushedBeforeTheNext) {
    module.script({"A5 02 00 5B 5A / A5 02 00 11 5A", withData("22")});
    EXPECT_EQ(amplifier->readRange(), 0x5B);
    const int port = ::open(module.path().c_str(), O_RDWR | O_NOCTTY);
    int waiting = 0;
    for (int n = 0; n < 5000 && waiting == 0; ++n) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(::ioctl(port, FIONREAD, &waiting), 0);
    }
    ::close(port);
    EXPECT_EQ(waiting, 5);
    EXPECT_EQ(amplifier->readRange(), 0x22);
}

TEST_F(AmplifierProtocol, busFailureCountsAsAFailedAttempt) {
    LogCapture log(3);
    kestrixsim::Fault fault;
    fault.kind = kestrixsim::FaultKind::MuxError;
    fault.times = 2;
    kestrixsim::instrument().inject(fault);
    module.script({withData("04")});
    EXPECT_EQ(amplifier->readRange(), 4);
    const std::string line = "5 Amplifier index 3 error: Input/output error failed! Command 189!";
    EXPECT_EQ(log.lines(), (Strings{line, line}));
}

TEST_F(AmplifierProtocol, stuckMultiplexerPassesThroughEverything) {
    kestrixsim::Fault fault;
    fault.kind = kestrixsim::FaultKind::MuxReadsBack;
    fault.times = -1;
    kestrixsim::instrument().inject(fault);
    LogCapture log(7);
    EXPECT_THROW(amplifier->readRange(), std::logic_error);
    EXPECT_THROW(amplifier->readProperties(), std::logic_error);
    EXPECT_THROW(amplifier->updateProperties(), std::logic_error);
    EXPECT_EQ(module.takeRequests(), Strings{});
    // The link is free again.
    kestrixsim::instrument().clearFaults();
    EXPECT_EQ(amplifier->setRange(1), 1);
}

TEST_F(AmplifierProtocol, resetDrainsTheGreeting) {
    module.script({"A5 01 00 5A / 0D 0A 41 0D 0A", withData("04")});
    EXPECT_EQ(amplifier->hwReset(), 1);
    EXPECT_EQ(amplifier->readRange(), 4);
}

TEST_F(AmplifierProtocol, settingsReachTheModuleOnlyWhenTheyDiffer) {
    EXPECT_EQ(amplifier->setRange(3), 1);
    EXPECT_EQ(amplifier->getRange(), 3);
    EXPECT_EQ(amplifier->setRange(3), 0);
    EXPECT_EQ(module.takeRequests(), Strings{"A5 02 BC 03 5A"});
    EXPECT_EQ(amplifier->setRange(5), 1);
    EXPECT_EQ(module.takeRequests(), Strings{"A5 02 BC 05 5A"});

    // What the module didn't take stays wanted, and the next attempt sends it again.
    {
        LogCapture log(7);
        module.script({refused, refused, refused});
        EXPECT_EQ(failureOf([&] { amplifier->setRange(7); }), "range");
    }
    EXPECT_EQ(amplifier->getRange(), 7);
    module.takeRequests();
    EXPECT_EQ(amplifier->setRange(5), 0);
    EXPECT_EQ(amplifier->setRange(7), 1);
    EXPECT_EQ(module.takeRequests(), Strings{"A5 02 BC 07 5A"});

    amplifier->clearDeviceProperties();
    EXPECT_EQ(amplifier->getRange(), 7);
    EXPECT_EQ(amplifier->setRange(7), 1);
    module.takeRequests();

    EXPECT_EQ(amplifier->setSerial(0x2Aul), 1);
    EXPECT_EQ(amplifier->setSerial("2a"), -1);
    amplifier->setCalibrationDate(5);
    amplifier->setCalibrationDate(5);
    EXPECT_EQ(amplifier->setHwVersion(1, 2, 3, 4), 1);
    EXPECT_EQ(amplifier->setHwVersion("1.2.3.4"), 0);
    EXPECT_EQ(module.takeRequests().size(), 3u);
}

TEST_F(AmplifierProtocol, newMeasurementMakesTheCouplingUnknown) {
    amplifier->setInputCoupling(2);
    amplifier->setMeasurementType(1);
    EXPECT_EQ(amplifier->getInputCoupling(), 2);
    EXPECT_EQ(amplifier->setInputCoupling(2), 1);
    // The same measurement again changes nothing.
    EXPECT_EQ(amplifier->setMeasurementType(1), 0);
    EXPECT_EQ(amplifier->setInputCoupling(2), 0);
    EXPECT_EQ(module.takeRequests(),
              (Strings{"A5 02 C3 02 5A", "A5 02 60 01 5A", "A5 02 C3 02 5A"}));
}

TEST_F(AmplifierProtocol, everySettingLogsAndFailsByItsName) {
    using A = AmplifierProperties;
    struct {
        const char* name;
        const char* line;
        std::function<void(A&)> run;
    } const cases[] = {
        {"coupling", "3 setInputCoupling(1) on amplifier '3'", [](A& a) { a.setInputCoupling(1); }},
        {"input type", "3 setInputType(1) on amplifier '3'", [](A& a) { a.setInputType(1); }},
        {"pattern", "", [](A& a) { a.setPattern(1); }},
        {"range", "3 setRange(5) on amplifier '3'", [](A& a) { a.setRange(5); }},
        {"connector type", "", [](A& a) { a.setConnectorType(1); }},
        {"hardware capabilities", "", [](A& a) { a.setHwCapabilities(1); }},
        {"measurement type", "3 setMeasurementType(1) on amplifier '3'", [](A& a) { a.setMeasurementType(1); }},
        {"excitation unit", "", [](A& a) { a.setExcitationUnit(1); }},
        {"excitation type", "3 setExcitationType(1) on amplifier '3'", [](A& a) { a.setExcitationType(1); }},
        {"excitation value", "3 setExcitationValue(2.5) on amplifier '3'",
         [](A& a) { a.setExcitationValue(2.5f); }},
        {"LP filter index", "3 setLPFilter(1) on amplifier '3'", [](A& a) { a.setLPFilter(1); }},
        {"short on", "3 setShort(1) on amplifier '3'", [](A& a) { a.setShort(1); }},
        {"serial number", "", [](A& a) { a.setSerial(1ul); }},
        {"hw version", "", [](A& a) { a.setHwVersion(1, 2, 3, 4); }},
        {"calibration date", "", [](A& a) { a.setCalibrationDate(1); }},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.name);
        LogCapture log(3);
        module.script({refused, refused, refused});
        EXPECT_EQ(failureOf([&] { entry.run(*amplifier); }), entry.name);
        Strings settingLines;
        for (const std::string& line : log.lines())
            if (line[0] == '3')
                settingLines.push_back(line);
        EXPECT_EQ(settingLines, *entry.line ? Strings{entry.line} : Strings{});
    }
}

TEST_F(AmplifierProtocol, textsThatAreNoNumbers) {
    EXPECT_EQ(amplifier->setHwVersion("1.2.3"), -1);
    EXPECT_EQ(amplifier->setHwVersion("1.2.3.4.5"), -1);
    const auto textOf = [](const auto& operation) -> std::string {
        try {
            operation();
        } catch (const std::invalid_argument& failure) {
            return std::string("invalid ") + failure.what();
        } catch (const std::out_of_range& failure) {
            return std::string("range ") + failure.what();
        }
        return "none";
    };
    EXPECT_EQ(textOf([&] { amplifier->setSerial("xyz"); }), "invalid stoull");
    EXPECT_EQ(textOf([&] { amplifier->setSerial("12345678901234567"); }), "range stoull");
    EXPECT_EQ(textOf([&] { amplifier->setHwVersion("1.2.x.4"); }), "invalid stoi");
    EXPECT_EQ(textOf([&] { amplifier->setHwVersion("1.2.99999999999.4"); }), "range stoi");
    EXPECT_EQ(module.takeRequests(), Strings{});
}

TEST_F(AmplifierProtocol, identityIsReadInOrder) {
    EXPECT_EQ(amplifier->getId(), "0.255.255.255");
    EXPECT_FALSE(amplifier->isAmplifierDefined());
    module.script(identity(two, fiveHundred));
    EXPECT_TRUE(amplifier->readProperties());
    EXPECT_EQ(module.takeRequests(),
              (Strings{"A5 01 A7 5A", "A5 01 AA 5A", "A5 01 A6 5A", "A5 01 A3 5A", "A5 01 49 5A", "A5 01 65 5A",
                       "A5 01 63 5A", "A5 01 66 5A", "A5 01 FA 5A", "A5 01 FB 5A"}));
    EXPECT_TRUE(amplifier->isAmplifierDefined());
    EXPECT_EQ(amplifier->getModuleType(), 2);
    EXPECT_EQ(amplifier->getId(), "2.1.3.2");
    EXPECT_EQ(amplifier->getFwVersion(), "3.1");
    EXPECT_EQ(amplifier->getHwVersion(), "2.0.0.0");
    EXPECT_EQ(amplifier->getSerial(), "800000000000002A");
    EXPECT_EQ(amplifier->getCalibrationDate(), 0x69558A80);
    EXPECT_EQ(amplifier->getDaqScale(), 2.0);
    EXPECT_EQ(amplifier->getDaqOffset(), 1.0);
    EXPECT_EQ(amplifier->getDoLevelInvert(), -1);
    // What the module never told is still unknown.
    EXPECT_EQ(amplifier->getRange(), 0xFF);

    amplifier->clearDeviceProperties();
    EXPECT_FALSE(amplifier->isAmplifierDefined());
    EXPECT_EQ(amplifier->getModuleType(), 2);
    EXPECT_EQ(amplifier->getDaqScale(), 1.0);
    EXPECT_EQ(amplifier->getDaqOffset(), 0.0);
}

TEST_F(AmplifierProtocol, shortSerialHasEightDigitsAndTheDateIsLocal) {
    ::setenv("TZ", "UTC-2", 1);
    ::tzset();
    Strings replies = identity(two, fiveHundred);
    replies[3] = withData("2A 00 00 00 00 00 00 00");
    module.script(replies);
    ASSERT_TRUE(amplifier->readProperties());
    EXPECT_EQ(amplifier->getSerial(), "0000002A");
    std::string text;
    amplifier->getCalibrationDate(text);
    EXPECT_EQ(text, "31.12.2025 22:41:36");
    ::unsetenv("TZ");
    ::tzset();
}

TEST_F(AmplifierProtocol, identityStopsAtTheFirstFailure) {
    const char* const steps[] = {"module type",       "fw version",      "hw number",
                                 "serial number",     "calibration date", "module sub type",
                                 "connector type",    "firmware capabilities", "update scaling"};
    for (size_t failing = 0; failing < std::size(steps); ++failing) {
        SCOPED_TRACE(steps[failing]);
        module.script(identity(two, fiveHundred));
        ASSERT_TRUE(amplifier->readProperties());
        module.takeRequests();

        Strings replies = identity(two, fiveHundred);
        replies.resize(failing);
        replies.insert(replies.end(), 3, refused);
        replies.push_back(withData(fiveHundred));  // the second exchange of the scaling is made all the same
        module.script(replies);
        LogCapture log;
        EXPECT_FALSE(amplifier->readProperties());
        EXPECT_EQ(module.takeRequests().size(), failing + 3 + (failing == 8 ? 1 : 0));
        EXPECT_EQ(log.lines().back(),
                  std::string("5 Amplifier index 3 error: read of ") + steps[failing] + " failed!");
        EXPECT_FALSE(amplifier->isAmplifierDefined());
        EXPECT_EQ(amplifier->getModuleType(), 0);
        EXPECT_EQ(amplifier->getId(), "0.255.255.255");
        EXPECT_EQ(amplifier->getCalibrationDate(), -1);
    }
}

TEST_F(AmplifierProtocol, scalingTakesOnlyNumbers) {
    const auto scaled = [&](const std::string& scale, const std::string& offset) {
        module.script({scale, offset});
        return amplifier->updateScaling();
    };
    struct {
        const char* scale;
        const char* offset;
        double daqScale;
        double daqOffset;
    } const cases[] = {
        {two, fiveHundred, 2.0, 1.0},
        {notANumber, fiveHundred, 1.0, 0.0},
        {two, notANumber, 1.0, 0.0},
        {infinite, fiveHundred, 1.0, 0.0},
    };
    for (const auto& entry : cases) {
        ASSERT_TRUE(scaled(withData(two), withData(fiveHundred)));
        EXPECT_TRUE(scaled(withData(entry.scale), withData(entry.offset)));
        EXPECT_EQ(amplifier->getDaqScale(), entry.daqScale);
        EXPECT_EQ(amplifier->getDaqOffset(), entry.daqOffset);
    }
    // An answer without a whole number leaves the preset.
    EXPECT_TRUE(scaled(ok, withData("00 00")));
    EXPECT_EQ(amplifier->getDaqScale(), 1.0);
    EXPECT_EQ(amplifier->getDaqOffset(), 0.0);

    LogCapture log(7);
    ASSERT_TRUE(scaled(withData(two), withData(fiveHundred)));
    module.script({refused, refused, refused, withData(two)});
    EXPECT_FALSE(amplifier->updateScaling());
    module.script({withData("00 00 80 3F"), refused, refused, refused});
    EXPECT_FALSE(amplifier->updateScaling());
    EXPECT_EQ(amplifier->getDaqScale(), 2.0);
    EXPECT_EQ(amplifier->getDaqOffset(), 1.0);
}

TEST_F(AmplifierProtocol, updateAppliesAndReadsTheScalingAgain) {
    module.script({ok, withData(two), withData(fiveHundred)});
    EXPECT_TRUE(amplifier->updateProperties());
    EXPECT_EQ(module.takeRequests(), (Strings{"A5 01 67 5A", "A5 01 FA 5A", "A5 01 FB 5A"}));
    EXPECT_EQ(amplifier->getDaqOffset(), 1.0);

    LogCapture log;
    module.script({refused, refused, refused});
    EXPECT_FALSE(amplifier->updateProperties());
    EXPECT_EQ(module.takeRequests().size(), 3u);
    EXPECT_EQ(log.lines().back(), "5 Amplifier update failed on module 3: update properties failed!");
    module.script({ok, refused, refused, refused});
    EXPECT_FALSE(amplifier->updateProperties());
    EXPECT_EQ(log.lines().back(), "5 Amplifier update failed on module 3: update scaling failed!");
}

TEST_F(AmplifierProtocol, unknownExcitationIsAlwaysSent) {
    EXPECT_TRUE(std::isnan(amplifier->getExcitationValue()));
    EXPECT_EQ(amplifier->setExcitationValue(amplifier->getExcitationValue()), 1);
    EXPECT_EQ(amplifier->setExcitationValue(amplifier->getExcitationValue()), 1);
    EXPECT_EQ(module.takeRequests(), Strings(2, "A5 05 B9 FF FF FF FF 5A"));
}

TEST_F(AmplifierProtocol, splitDropsEmptyPieces) {
    Strings parts{"kept"};
    AmplifierProperties::splitString(parts, ".a..b.", ".");
    EXPECT_EQ(parts, (Strings{"kept", "a", "b"}));
    AmplifierProperties::splitString(parts, "", ".");
    EXPECT_EQ(parts.size(), 3u);
}

}  // namespace
