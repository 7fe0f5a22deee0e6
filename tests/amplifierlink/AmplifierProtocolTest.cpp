#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "shared/libraries/kestrix/src/AmplifierCommands.h"
#include "shared/libraries/kestrix/src/AmplifierProperties.h"
#include "simulator/preload/Control.h"
#include "tests/amplifierlink/ScriptedModule.h"
#include "tests/registers/FailureOf.h"
#include "tests/registers/LogCapture.h"

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

std::string repeated(const std::string& text, size_t times) {
    return times == 0 ? "" : text + repeated(text, times - 1);
}

std::string withData(const std::string& bytes) {
    return bytes.empty() ? ok : ScriptedModule::frame("00 " + bytes);
}

struct AmplifierProtocol : testing::Test {
    AmplifierProtocol() {
        kestrixsim::reset(kestrixsim::Scenario{});
        auto uart = std::make_shared<AmplifierProperties::Uart>(module.path(), B38400, 200);
        uart->openDeviceFile();
        uart->initialize();
        mux = std::make_shared<UartMux>("/dev/i2c-1", board_t::eightChannels);
        amplifier = std::make_unique<AmplifierProperties>(index, uart, mux);
    }

    // Replies of the nine reads of the identity.
    static Strings identity() {
        return {withData("02"),
                withData("03 01"),
                withData("02 00 00 00"),
                withData("2A 00 00 00 00 00 00 80"),
                withData("80 8A 55 69 00 00 00 00"),
                withData("01"),
                withData("02"),
                withData("03"),
                withData(two),
                withData(fiveHundred)};
    }
    static constexpr const char* one = "00 00 80 3F";          // 1.0
    static constexpr const char* two = "00 00 00 40";          // 2.0
    static constexpr const char* fiveHundred = "00 00 FA 43";  // 500.0
    static constexpr const char* notANumber = "00 00 C0 7F";
    static constexpr const char* infinite = "00 00 80 7F";

    static constexpr int index = 3;
    ScriptedModule module;
    std::shared_ptr<UartMux> mux;
    std::unique_ptr<AmplifierProperties> amplifier;
};

// What comes of an operation: its number, or the text that it fails with.
std::string outcomeOf(const std::function<double()>& operation) {
    try {
        return fmt::format("{:g}", operation());
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
}

// Every operation of one exchange, with what it is to the wire and to its caller.
using A = AmplifierProperties;
using AmplifierCommands::Command;

struct Operation {
    Command command;
    const char* frame;
    const char* data;  // of the module's reply
    const char* result;
    const char* failure;  // when the module refuses
    std::function<double(A&)> run;
    const char* line = "";  // of the log
};

// An operation that fills so many bytes, or takes these.
template <class Call>
auto into(size_t size, Call call) {
    return [=](A& a) {
        Bytes bytes(size, 9);
        return call(a, bytes.data());
    };
}
template <class Call>
auto from(const Bytes& bytes, Call call) {
    return [=](A& a) { return call(a, bytes.data()); };
}
using Data = unsigned char*;
using Given = const unsigned char*;

const Operation operations[] = {
    {Command::GetLatestCalibrationVersion, "A5 01 40 5A", "02", "2", "-1",
     into(1, [](A& a, Data v) { return a.getLatestSupportedCalibrationStructureVersion(v[0]) ? v[0] : -v[0]; })},
    {Command::SetRawMode, "A5 02 41 01 5A", "", "1", "-1", [](A& a) { return a.setRawMode(true); }},
    {Command::GetRawMode, "A5 01 42 5A", "01", "1", "0", [](A& a) { return a.getRawMode(); }},
    {Command::WriteCalibrationData, "A5 06 45 34 12 02 AA 55 5A", "", "1", "-1",
     from({0xAA, 0x55}, [](A& a, Given b) { return a.writeCalibrationData(0x1234, b, 2); })},
    {Command::ReadCalibrationData, "A5 04 46 34 12 10 5A", "01 02", "3", "-1",
     into(16, [](A& a, Data b) { return a.readCalibrationData(0x1234, b, 16); })},
    {Command::GetCalibrationDataSize, "A5 01 47 5A", "00 01", "256", "-1",
     [](A& a) {
         unsigned short size = 0;
         return a.getCalibrationDataSize(size) ? size : -1;
     }},
    {Command::SetCalibrationDate, "A5 09 48 08 07 06 05 04 03 02 01 5A", "", "0", "calibration date",
     [](A& a) {
         a.setCalibrationDate(0x0102030405060708);
         return 0;
     }},
    {Command::ReadCalibrationDate, "A5 01 49 5A", "01 02 03 04 05 06 07 08", "9", "-1",
     [date = 0L](A& a) mutable { return a.readCalibrationDate(date); }},
    {Command::EraseFlash, "A5 01 49 5A", "", "1", "-1", [](A& a) { return a.eraseFlash(); }},
    {Command::WriteFlash, "A5 04 50 01 02 03 5A", "", "1", "-1",
     from({1, 2, 3}, [](A& a, Given b) { return a.writeFlash(b, 3); })},
    {Command::ExitBootLoad, "A5 01 53 5A", "", "1", "-1", [](A& a) { return a.exitBootLoad(); }},
    {Command::GoBootLoad, "A5 01 57 5A", "", "1", "-1", [](A& a) { return a.goBootLoad(); }},
    {Command::HwReset, "A5 01 5B 5A", "", "1", "-1", [](A& a) { return a.hwReset(); }},
    {Command::SetMeasurementType, "A5 02 60 01 5A", "", "1", "measurement type",
     [](A& a) { return a.setMeasurementType(1); }, "3 setMeasurementType(1) on amplifier '3'"},
    {Command::ReadMeasurementType, "A5 01 61 5A", "07", "7", "-1", [](A& a) { return a.readMeasurementType(); }},
    {Command::SetConnectorType, "A5 02 62 02 5A", "", "1", "connector type",
     [](A& a) { return a.setConnectorType(2); }},
    {Command::ReadConnectorType, "A5 01 63 5A", "07", "7", "-1", [](A& a) { return a.readConnectorType(); }},
    {Command::SetHwCapabilities, "A5 02 64 03 5A", "", "1", "hardware capabilities",
     [](A& a) { return a.setHwCapabilities(3); }},
    {Command::ReadHwCapabilities, "A5 01 65 5A", "07", "7", "-1", [](A& a) { return a.readHwCapabilities(); }},
    {Command::ReadFwCapabilities, "A5 01 66 5A", "07", "7", "-1", [](A& a) { return a.readFwCapabilities(); }},
    {Command::UpdateAmplifier, "A5 01 67 5A", "", "1", "-1", [](A& a) { return a.updateAmplifier(); }},
    {Command::SetExcitationUnit, "A5 02 68 04 5A", "", "1", "excitation unit",
     [](A& a) { return a.setExcitationUnit(4); }},
    {Command::ReadExcitationUnit, "A5 01 69 5A", "07", "7", "-1", [](A& a) { return a.readExcitationUnit(); }},
    {Command::SetExcitationType, "A5 02 6A 05 5A", "", "1", "excitation type",
     [](A& a) { return a.setExcitationType(5); }, "3 setExcitationType(5) on amplifier '3'"},
    {Command::ReadExcitationType, "A5 01 6B 5A", "07", "7", "-1", [](A& a) { return a.readExcitationType(); }},
    {Command::ReadLPFilter, "A5 01 9F 5A", "FF", "255", "-1", [](A& a) { return a.readLPFilter(); }},
    {Command::SetSerial, "A5 09 A1 2A 00 00 00 00 00 00 00 5A", "", "1", "serial number",
     [](A& a) { return a.setSerial("2A"); }},
    {Command::ReadSerial, "A5 01 A3 5A", "01 02 03 04 05 06 07 08", "9", "-1",
     [serial = 0UL](A& a) mutable { return a.readSerial(serial); }},
    {Command::SetHwVersion, "A5 05 A4 01 02 03 04 5A", "", "1", "hw version",
     [](A& a) { return a.setHwVersion("1.2..3.4."); }},
    {Command::ReadHwVersion, "A5 01 A6 5A", "01 02 03 04", "5", "-1",
     into(4, [](A& a, Data v) { return a.readHwVersion(v[0], v[1], v[2], v[3]); })},
    {Command::ReadModuleType, "A5 01 A7 5A", "07", "7", "-1", [](A& a) { return a.readModuleType(); }},
    {Command::ReadFwVersion, "A5 01 AA 5A", "01 02", "3", "-1",
     into(2, [](A& a, Data v) { return a.readFwVersion(v[0], v[1]); })},
    {Command::SetShort, "A5 02 B7 01 5A", "", "1", "short on", [](A& a) { return a.setShort(1); },
     "3 setShort(1) on amplifier '3'"},
    {Command::ReadShort, "A5 01 B8 5A", "07", "7", "-1", [](A& a) { return a.readShort(); }},
    {Command::SetExcitationValue, "A5 05 B9 00 00 20 40 5A", "", "1", "excitation value",
     [](A& a) { return a.setExcitationValue(2.5f); }, "3 setExcitationValue(2.5) on amplifier '3'"},
    {Command::ReadExcitationValue, "A5 01 BA 5A", "00 00 20 40", "2.5", "-1",
     [](A& a) { return a.readExcitationValue(); }},
    {Command::SetRange, "A5 02 BC 05 5A", "", "1", "range", [](A& a) { return a.setRange(5); },
     "3 setRange(5) on amplifier '3'"},
    {Command::ReadRange, "A5 01 BD 5A", "07", "7", "-1", [](A& a) { return a.readRange(); }},
    {Command::SetInputCoupling, "A5 02 C3 01 5A", "", "1", "coupling", [](A& a) { return a.setInputCoupling(1); },
     "3 setInputCoupling(1) on amplifier '3'"},
    {Command::ReadInputCoupling, "A5 01 C4 5A", "07", "7", "-1", [](A& a) { return a.readInputCoupling(); }},
    {Command::SetAlarm, "A5 02 C7 09 5A", "", "1", "-1", [](A& a) { return a.setAlarm(9); }},
    {Command::SetLPFilter, "A5 02 C8 02 5A", "", "1", "LP filter index", [](A& a) { return a.setLPFilter(2); },
     "3 setLPFilter(2) on amplifier '3'"},
    {Command::SetInputType, "A5 02 C9 01 5A", "", "1", "input type", [](A& a) { return a.setInputType(1); },
     "3 setInputType(1) on amplifier '3'"},
    {Command::ReadInputType, "A5 01 CA 5A", "07", "7", "-1", [](A& a) { return a.readInputType(); }},
    {Command::ReadTeds, "A5 01 D0 5A", "01 02 03 04 05 06 07", "0", "-1",
     into(8, [](A& a, Data b) { return a.readTeds(b); })},
    {Command::ResetTedsCustom, "A5 02 D1 01 5A", "", "0", "-1", [](A& a) { return a.resetTedsCustom(); }},
    {Command::WriteTedsCustom, "A5 04 D1 02 07 08 5A", "", "0", "-1",
     from({7, 8}, [](A& a, Given b) { return a.writeTedsCustom(b, 2); })},
    {Command::ReadTedsCustom, "A5 03 D1 03 04 5A", "01 02 03", "0", "-1",
     into(4, [](A& a, Data b) { return a.readTedsCustom(b, 4); })},
    {Command::ReadTedsCustom, "A5 03 D1 03 00 5A", "", "0", "-1", [](A& a) { return a.readTedsCustom(nullptr, 0); }},
    {Command::FinalizeTedsCustom, "A5 02 D1 04 5A", "", "0", "-1", [](A& a) { return a.finalizeTedsCustom(); }},
    {Command::SetDoLevelInvert, "A5 03 E0 01 02 5A", "", "1", "-1", [](A& a) { return a.setDoLevelInvert(1, 2); }},
    {Command::SetCmrSettingOff, "A5 03 EA 01 02 5A", "", "1", "-1", [](A& a) { return a.setCmrSetting(1, 2, false); }},
    {Command::GetCmrSetting, "A5 02 EB 06 5A", "11 22", "3", "-1",
     into(2, [](A& a, Data v) { return a.getCmrSetting(6, v[0], v[1]); })},
    {Command::SetCmrSettingOn, "A5 03 EC 01 02 5A", "", "1", "-1", [](A& a) { return a.setCmrSetting(1, 2, true); }},
    {Command::GetSensorStatus, "A5 01 F0 5A", "05", "5", "-1", [](A& a) { return a.getSensorStatus(); }},
    {Command::SetLed1Function, "A5 02 F2 00 5A", "", "1", "-1", [](A& a) { return a.setLed1Function(false); }},
    {Command::SetLed1Function, "A5 02 F2 01 5A", "", "1", "-1", [](A& a) { return a.setLed1Function(true); }},
    {Command::SetPattern, "A5 02 F7 03 5A", "", "1", "pattern", [](A& a) { return a.setPattern(3); }},
    {Command::GetPattern, "A5 01 F8 5A", "07", "7", "-1", [](A& a) { return a.getPattern(); }},
};

TEST_F(AmplifierProtocol, everyOperationHasItsFrameResultAndFailure) {
    for (const Operation& entry : operations) {
        SCOPED_TRACE(entry.frame);
        LogCapture log(3);
        module.script({refused, refused, refused, withData(entry.data)});
        EXPECT_EQ(outcomeOf([&] { return entry.run(*amplifier); }), entry.failure);
        EXPECT_EQ(module.takeRequests(), Strings(3, entry.frame));
        Strings settingLines = log.lines();
        std::erase_if(settingLines, [](const std::string& line) { return line[0] != '3'; });
        EXPECT_EQ(settingLines, *entry.line ? Strings{entry.line} : Strings{});

        EXPECT_EQ(outcomeOf([&] { return entry.run(*amplifier); }), entry.result);
        EXPECT_EQ(module.takeRequests(), Strings{entry.frame});
    }
}

// A module whose time is the test's: each look at the clock takes 10 ms of it, and an answer comes when its time is
// there, or never. The clock stands while an answer is under way, so that the test's own threads and the machine's load
// are no matter.
class TimedModule {
public:
    using TimePoint = A::TimePoint;

    explicit TimedModule(A::TimePoint::duration answersAfter, std::string reply)
        : delay_(answersAfter), reply_(std::move(reply)), master_(::posix_openpt(O_RDWR | O_NOCTTY)) {
        char name[64];
        if (::grantpt(master_) != 0 || ::unlockpt(master_) != 0 || ::ptsname_r(master_, name, sizeof name) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        path = name;
    }
    ~TimedModule() { ::close(master_); }

    TimePoint look() {
        take(reply_.empty() || requests > 0 ? 0 : 5000);
        if (!reply_.empty() && now_ >= began_ + delay_) {
            if (!answered_) {
                answered_ = true;
                std::istringstream bytes(reply_);
                for (std::string byte; bytes >> byte;) {
                    const auto value = static_cast<unsigned char>(std::stoi(byte, nullptr, 16));
                    EXPECT_EQ(::write(master_, &value, 1), 1);
                }
            }
            return now_;
        }
        now_ += std::chrono::milliseconds(10);
        return now_;
    }
    TimePoint::duration elapsed() const { return now_ - TimePoint{}; }
    // Requests that came, also those that are on their way still.
    int settle(int wanted) {
        while (requests < wanted && take(5000)) {
        }
        return requests;
    }

    std::string path;
    int requests = 0;

private:
    // Counts the frames of what arrives within so many real ms.
    bool take(int timeoutMs) {
        pollfd readable{master_, POLLIN, 0};
        while (::poll(&readable, 1, timeoutMs) > 0 && (readable.revents & POLLIN) != 0) {
            unsigned char bytes[512];
            const ssize_t count = ::read(master_, bytes, sizeof bytes);
            received_.insert(received_.end(), bytes, bytes + std::max<ssize_t>(count, 0));
            while (received_.size() >= 2 && received_.size() >= received_[1] + 3u) {
                received_.erase(received_.begin(), received_.begin() + received_[1] + 3);
                ++requests;
                answered_ = false;
                began_ = now_;
                timeoutMs = 0;
            }
            if (timeoutMs == 0) {
                return true;
            }
        }
        return false;
    }

    const TimePoint::duration delay_;
    const std::string reply_;
    const int master_;
    Bytes received_;
    TimePoint now_{};
    TimePoint began_{};
    bool answered_ = false;
};

// At nine tenths of its own time-out a module's answer is in time, for every command; without any answer each of the
// three attempts lasts the time-out and no longer.
TEST_F(AmplifierProtocol, everyCommandWaitsForItsTimeAndNotForEver) {
    std::vector<Operation> all(std::begin(operations), std::end(operations));
    // One operation of two exchanges.
    all.push_back({Command::ReadScale, "FA, FB", one, "1", "0", [](A& a) { return a.updateScaling(); }});
    std::set<Command> seen{Command::ReadOffset};
    const std::map<Command, int> longer{{Command::UpdateAmplifier, 500},
                                        {Command::GoBootLoad, 1000},
                                        {Command::EraseFlash, 2000},
                                        {Command::ExitBootLoad, 7000}};
    for (const Operation& entry : all) {
        SCOPED_TRACE(entry.frame);
        const bool slow = longer.contains(entry.command);
        const bool quiet = entry.command == Command::ReadTeds || entry.command == Command::ResetTedsCustom;
        seen.insert(entry.command);
        const int exchanges = entry.command == Command::ReadScale ? 2 : 1;
        const std::chrono::milliseconds timeout(exchanges * (slow ? longer.at(entry.command) : 200));
        for (const bool silent : {false, true}) {
            TimedModule timed(timeout * 9 / 10 / exchanges, silent ? "" : withData(entry.data));
            auto uart = std::make_shared<A::Uart>(timed.path, B38400, 0);
            uart->openDeviceFile();
            uart->initialize();
            A amplifierInTime(index, uart, mux, nullptr, [&timed] { return timed.look(); });
            LogCapture log(4);
            EXPECT_EQ(outcomeOf([&] { return entry.run(amplifierInTime); }), silent ? entry.failure : entry.result);
            const int requests = silent ? 3 * exchanges : exchanges;
            EXPECT_EQ(timed.settle(requests), requests);
            const auto expected = silent ? 3 * timeout : timeout * 9 / 10;
            EXPECT_GE(timed.elapsed(), expected);
            EXPECT_LE(timed.elapsed(), expected + std::chrono::milliseconds(60));
            EXPECT_EQ(log.lines().empty(), !silent || quiet);
        }
    }
    EXPECT_EQ(seen.size(), std::size(AmplifierCommands::commandTable));
}

// What was asked for, what was acknowledged, what is in force; and what is known when something fails.
TEST_F(AmplifierProtocol, threeRecordsOfTheSettings) {
    const auto failureOfUpdate = [&](const Strings& replies) {
        module.script(replies);
        const auto failure = amplifier->applySettings();
        return failure ? failure->failure.reason : std::string();
    };
    EXPECT_FALSE(amplifier->getSettingsInForce());
    amplifier->setRange(3);
    EXPECT_FALSE(amplifier->getSettingsInForce());
    EXPECT_EQ(failureOfUpdate({}), "");
    EXPECT_EQ(amplifier->getSettingsInForce()->range, 3);

    amplifier->setRange(5);
    module.script(Strings(3, refused));
    try {
        amplifier->setLPFilter(7);
        FAIL() << "was refused";
    } catch (const SettingFailure& failure) {
        EXPECT_STREQ(failure.what(), "LP filter index");
        EXPECT_TRUE(failure.failure.refused && failure.failure.status == 3 && !failure.failure.mayBeDone);
        EXPECT_EQ(failure.failure.reason, "refused with status 3");
    }
    EXPECT_EQ(amplifier->getUserProperties().lpFilter, 7);
    EXPECT_EQ(amplifier->getDeviceProperties().range, 5);
    EXPECT_EQ(amplifier->getDeviceProperties().lpFilter, 0xFF);
    EXPECT_EQ(amplifier->getSettingsInForce()->range, 3);

    // A refusal is sure of itself; silence is not, whatever is heard beside it.
    EXPECT_EQ(failureOfUpdate(Strings(3, refused)), "refused with status 3");
    EXPECT_EQ(amplifier->getSettingsInForce()->range, 3);
    EXPECT_EQ(failureOfUpdate({silent, ScriptedModule::frame("09"), silent}), "refused with status 9");
    EXPECT_FALSE(amplifier->getSettingsInForce());
    EXPECT_EQ(failureOfUpdate({}), "");
    EXPECT_EQ(amplifier->getSettingsInForce()->range, 5);
    EXPECT_EQ(amplifier->getSettingsInForce()->lpFilter, 0xFF) << "was asked for only";
    EXPECT_EQ(failureOfUpdate(Strings(3, silent)), "no answer");
    EXPECT_FALSE(amplifier->getSettingsInForce());
    // Scale and offset have no part in it.
    EXPECT_EQ(failureOfUpdate({ok, ok, refused, refused, refused}), "refused with status 3");
    EXPECT_EQ(amplifier->getSettingsInForce()->range, 5);
    kestrixsim::instrument().inject({.kind = kestrixsim::FaultKind::MuxError, .times = 3});
    EXPECT_EQ(failureOfUpdate({}), "bus error: Input/output error");

    // Dropped: each is sent again, the identity stays.
    amplifier->setHwVersion(1, 2, 3, 4);
    amplifier->dropStaged();
    module.script({});
    EXPECT_EQ(amplifier->setRange(5), 1);
    EXPECT_EQ(amplifier->setHwVersion(1, 2, 3, 4), 0);
    amplifier->updateAmplifier();
    EXPECT_TRUE(amplifier->getSettingsInForce());
    amplifier->clearDeviceProperties();
    EXPECT_FALSE(amplifier->getSettingsInForce());
}

TEST_F(AmplifierProtocol, replyOfAnotherLengthIsAFailureOfItsOwn) {
    for (const Operation& entry : operations) {
        const std::string data = entry.data;
        // Those without data, and the one whose reply may have any length.
        if (data.empty() || entry.command == Command::ReadCalibrationData) {
            continue;
        }
        SCOPED_TRACE(entry.frame);
        module.script({withData(data.substr(0, std::max<size_t>(data.size(), 3) - 3))});
        const bool known = entry.command != Command::GetSensorStatus;  // which counts as none then
        EXPECT_EQ(outcomeOf([&] { return entry.run(*amplifier); }), known ? entry.failure : "0");
    }
    for (const char* data : {"02", "01 01"}) {
        module.script({withData(data)});
        EXPECT_FALSE(amplifier->getRawMode()) << data;
    }
    unsigned short size = 0;
    module.script({withData("00 01 00"), withData("11 22")});
    EXPECT_FALSE(amplifier->getCalibrationDataSize(size));
    Bytes pair(2);
    amplifier->getCmrSetting(0, pair[1], pair[0]);
    EXPECT_EQ(pair, (Bytes{0x11, 0x22}));
}

TEST_F(AmplifierProtocol, frameIsFoundInWhatArrives) {
    const std::pair<const char*, std::string> cases[] = {
        {"noise in front", "FF FF A5 02 00 5B 5A"},
        {"key in front that leads nowhere", "A5 03 11 A5 02 00 5B 5A"},
        {"key in front whose length leaves the buffer", "A5 F0 A5 02 00 5B 5A"},
        {"two parts", "A5 02 / 00 5B 5A"},
        {"byte by byte", "A5 / 02 / 00 / 5B / 5A"},
        {"more behind it", "A5 02 00 5B 5A A5 02 00 11 5A"},
        {"noise longer than one read", repeated("A5 ", 100) + "A5 02 00 5B 5A"},
    };
    LogCapture log;
    for (const auto& [name, reply] : cases) {
        SCOPED_TRACE(name);
        module.script({reply});
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

TEST_F(AmplifierProtocol, onlyWhatTheModuleSentIsCopied) {
    const std::pair<size_t, unsigned char> cases[] = {
        {4, 16}, {16, 4}, {124, 124}};  // the last one fills the receive buffer
    for (const auto& [sent, asked] : cases) {
        module.script({withData(repeated("11 ", sent))});
        Bytes buffer(125, 0xEE);
        EXPECT_EQ(amplifier->readCalibrationData(0, buffer.data(), asked), static_cast<short>(sent + 1));
        Bytes expected(std::min<size_t>(sent, asked), 0x11);
        expected.resize(125, 0xEE);
        EXPECT_EQ(buffer, expected);
    }
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

TEST_F(AmplifierProtocol, failedAttemptsAreLoggedAndTriedThreeTimes) {
    const auto line = [](int level, const char* text) {
        return fmt::format("{} Amplifier index 3 error: {} failed! Command 208!", level, text);
    };
    const std::string end = "Amplifier index 3 retransmit error!";
    const std::tuple<const char*, Strings, bool, short, Strings> cases[] = {
        {"refusal", Strings(3, refused), false, -1, Strings(3, line(5, "Command failed"))},
        {"quiet refusal", Strings(3, refused), true, -1, Strings(3, line(2, "Command failed"))},
        {"silence", Strings(3, silent), false, -1, Strings(3, line(5, "Timeout"))},
        {"endless noise, never quiet", Strings(3, repeated("11 ", 140)), true, -1,
         Strings(3, line(5, "UART received data overflow"))},
        {"half a frame, then a refusal",
         {"A5 02 00", refused, withData("04")},
         false,
         2,
         {line(5, "Timeout"), line(5, "Command failed")}},
    };
    for (const auto& [name, replies, quiet, result, lines] : cases) {
        SCOPED_TRACE(name);
        LogCapture log;
        module.script(replies);
        const auto start = std::chrono::steady_clock::now();
        unsigned char byte = 0;
        EXPECT_EQ(amplifier->sendReplyCommand(0xD0, &byte, 1, 400, quiet), result);
        if (replies.front() == silent) {
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(3 * 400));
        }
        EXPECT_EQ(module.takeRequests().size(), 3u);
        Strings expected = lines;
        if (result < 0) {
            expected.push_back((quiet ? "2 " : "5 ") + end);
        }
        EXPECT_EQ(log.lines(), expected);
    }
    // Without a payload and a reply it is never quiet; a module without a chip always is.
    LogCapture log;
    Bytes buffer(8);
    module.script(Strings(6, refused));
    EXPECT_EQ(amplifier->sendCommand(0x67, 500, true), -1);
    EXPECT_EQ(log.all().back(), "5 " + end);
    EXPECT_EQ(amplifier->readTeds(buffer.data()), -1);
    EXPECT_EQ(log.all().back(), "2 " + end);
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
    kestrixsim::instrument().inject({.kind = kestrixsim::FaultKind::MuxError, .times = 2});
    module.script({withData("04")});
    EXPECT_EQ(amplifier->readRange(), 4);
    const std::string line = "5 Amplifier index 3 error: Input/output error failed! Command 189!";
    EXPECT_EQ(log.lines(), (Strings{line, line}));
}

TEST_F(AmplifierProtocol, stuckMultiplexerPassesThroughEverything) {
    kestrixsim::instrument().inject({.kind = kestrixsim::FaultKind::MuxReadsBack, .times = -1});
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
    module.script(Strings(3, refused));
    EXPECT_EQ(outcomeOf([&] { return amplifier->setRange(7); }), "range");
    EXPECT_EQ(amplifier->getRange(), 7);
    module.takeRequests();
    EXPECT_EQ(amplifier->setRange(5), 0);
    EXPECT_EQ(amplifier->setRange(7), 1);
    EXPECT_EQ(module.takeRequests(), Strings{"A5 02 BC 07 5A"});

    amplifier->clearDeviceProperties();
    EXPECT_EQ(amplifier->getRange(), 7);
    EXPECT_EQ(amplifier->setRange(7), 1);

    EXPECT_EQ(amplifier->setSerial(0x2Aul), 1);
    EXPECT_EQ(amplifier->setSerial("2a"), -1);
    EXPECT_EQ(amplifier->setHwVersion(1, 2, 3, 4), 1);
    EXPECT_EQ(amplifier->setHwVersion("1.2.3.4"), 0);
    EXPECT_EQ(module.takeRequests().size(), 3u);
}

TEST_F(AmplifierProtocol, textsThatAreNoNumbers) {
    for (const char* text : {"1.2.3", "1.2.3.4.5"}) {
        EXPECT_EQ(amplifier->setHwVersion(text), -1);
    }
    EXPECT_THROW(amplifier->setSerial("xyz"), std::invalid_argument);
    EXPECT_THROW(amplifier->setSerial("12345678901234567"), std::out_of_range);
    EXPECT_THROW(amplifier->setHwVersion("1.2.x.4"), std::invalid_argument);
    EXPECT_THROW(amplifier->setHwVersion("1.2.99999999999.4"), std::out_of_range);
    EXPECT_EQ(module.takeRequests(), Strings{});
}

TEST_F(AmplifierProtocol, identityIsReadInOrder) {
    EXPECT_EQ(amplifier->getId(), "0.255.255.255");
    EXPECT_FALSE(amplifier->isAmplifierDefined());
    module.script(identity());
    EXPECT_TRUE(amplifier->readProperties());
    EXPECT_EQ(module.takeRequests(),
              (Strings{"A5 01 A7 5A", "A5 01 AA 5A", "A5 01 A6 5A", "A5 01 A3 5A", "A5 01 49 5A", "A5 01 65 5A",
                       "A5 01 63 5A", "A5 01 66 5A", "A5 01 FA 5A", "A5 01 FB 5A"}));
    EXPECT_TRUE(amplifier->isAmplifierDefined());
    EXPECT_EQ(amplifier->getModuleType(), 2);
    EXPECT_EQ(
        (Strings{amplifier->getId(), amplifier->getFwVersion(), amplifier->getHwVersion(), amplifier->getSerial()}),
        (Strings{"2.1.3.2", "3.1", "2.0.0.0", "800000000000002A"}));
    EXPECT_EQ(amplifier->getCalibrationDate(), 0x69558A80);
    ::setenv("TZ", "UTC-2", 1);
    ::tzset();
    std::string date;
    amplifier->getCalibrationDate(date);
    EXPECT_EQ(date, "31.12.2025 22:41:36");
    ::unsetenv("TZ");
    ::tzset();
    EXPECT_EQ(amplifier->getDaqScale(), 2.0);
    EXPECT_EQ(amplifier->getDaqOffset(), 1.0);
    EXPECT_EQ(amplifier->getDoLevelInvert(), -1);
    // What the module never told is still unknown.
    EXPECT_EQ(amplifier->getRange(), 0xFF);

    amplifier->clearDeviceProperties();
    EXPECT_FALSE(amplifier->isAmplifierDefined());
    EXPECT_EQ(amplifier->getModuleType(), 2);
    EXPECT_EQ(std::pair(amplifier->getDaqScale(), amplifier->getDaqOffset()), std::pair(1.0, 0.0));

    // A short serial number has eight digits all the same.
    EXPECT_EQ(amplifier->setSerial(0x2Aul), 1);
    EXPECT_EQ(amplifier->getSerial(), "0000002A");
}

TEST_F(AmplifierProtocol, identityStopsAtTheFirstFailure) {
    const char* const steps[] = {"module type",      "fw version",      "hw number",      "serial number",
                                 "calibration date", "module sub type", "connector type", "firmware capabilities",
                                 "update scaling"};
    for (size_t failing = 0; failing < std::size(steps); ++failing) {
        SCOPED_TRACE(steps[failing]);
        module.script(identity());
        ASSERT_TRUE(amplifier->readProperties());
        module.takeRequests();

        Strings replies = identity();
        replies.resize(failing);
        replies.insert(replies.end(), 3, refused);
        replies.push_back(withData(fiveHundred));  // the second exchange of the scaling is made all the same
        module.script(replies);
        LogCapture log;
        EXPECT_FALSE(amplifier->readProperties());
        EXPECT_EQ(module.takeRequests().size(), failing + 3 + (failing == 8 ? 1 : 0));
        EXPECT_EQ(log.lines().back(), std::string("5 Amplifier index 3 error: read of ") + steps[failing] + " failed!");
        EXPECT_FALSE(amplifier->isAmplifierDefined());
        EXPECT_EQ(amplifier->getModuleType(), 0);
        EXPECT_EQ(amplifier->getId(), "0.255.255.255");
        EXPECT_EQ(amplifier->getCalibrationDate(), -1);
    }
}

TEST_F(AmplifierProtocol, scalingTakesOnlyNumbers) {
    const std::tuple<Strings, bool, double, double> cases[] = {
        {{withData(two), withData(fiveHundred)}, true, 2.0, 1.0},
        {{withData(notANumber), withData(fiveHundred)}, true, 1.0, 0.0},
        {{withData(two), withData(notANumber)}, true, 1.0, 0.0},
        {{withData(infinite), withData(fiveHundred)}, true, 1.0, 0.0},
        {{ok, withData("00 00")}, true, 1.0, 0.0},  // no whole number leaves the preset
        {{refused, refused, refused, withData(one)}, false, 2.0, 1.0},
        {{withData(one), refused, refused, refused}, false, 2.0, 1.0},
    };
    for (const auto& [replies, updated, daqScale, daqOffset] : cases) {
        SCOPED_TRACE(replies[0] + ", " + replies[1]);
        module.script({withData(two), withData(fiveHundred)});
        ASSERT_TRUE(amplifier->updateScaling());
        module.script(replies);
        EXPECT_EQ(amplifier->updateScaling(), updated);
        EXPECT_EQ(std::pair(amplifier->getDaqScale(), amplifier->getDaqOffset()), std::pair(daqScale, daqOffset));
    }
}

TEST_F(AmplifierProtocol, updateAppliesAndReadsTheScalingAgain) {
    module.script({ok, withData(two), withData(fiveHundred)});
    EXPECT_TRUE(amplifier->updateProperties());
    EXPECT_EQ(module.takeRequests(), (Strings{"A5 01 67 5A", "A5 01 FA 5A", "A5 01 FB 5A"}));
    EXPECT_EQ(amplifier->getDaqOffset(), 1.0);

    LogCapture log;
    module.script(Strings(3, refused));
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

}  // namespace
