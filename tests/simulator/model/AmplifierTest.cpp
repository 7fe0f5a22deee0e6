#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

using Bytes = std::vector<uint8_t>;

std::string hex(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%s%02X", text.empty() ? "" : " ", byte);
        text += digits;
    }
    return text;
}

Bytes bytesOf(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 3) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

class Amplifier : public testing::Test {
protected:
    Amplifier() {
        Scenario scenario;
        scenario.supplyOn = true;
        for (int slot = 0; slot < 4; ++slot) {
            ModuleScenario module;
            module.slot = slot;
            module.kind = static_cast<AmplifierKind>(slot);
            module.serial = 0x4B580017 + static_cast<uint64_t>(slot);
            scenario.modules.push_back(module);
        }
        rig = std::make_unique<Rig>(scenario);
        rig->select(0);
    }

    std::string raw(const std::string& request) { return hex(rig->exchange(bytesOf(request))); }

    // Command and payload; status and data of the answer.
    std::string ask(const std::string& command) {
        Bytes request = bytesOf(command);
        request.insert(request.begin(), {0xA5, static_cast<uint8_t>(request.size())});
        request.push_back(0x5A);
        const Bytes reply = rig->exchange(request);
        if (reply.size() < 4 || reply[0] != 0xA5 || reply[1] + 3u != reply.size() || reply.back() != 0x5A) {
            return "no frame: " + hex(reply);
        }
        return hex({reply.begin() + 2, reply.end() - 1});
    }

    float number(const std::string& command) {
        const Bytes reply = bytesOf(ask(command));
        float value = NAN;
        if (reply.size() == 5) {
            std::memcpy(&value, reply.data() + 1, 4);
        }
        return value;
    }

    std::unique_ptr<Rig> rig;
};

TEST_F(Amplifier, identityByteForByte) {
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 A7 5A"));
    EXPECT_EQ("A5 03 00 02 07 5A", raw("A5 01 AA 5A"));
    EXPECT_EQ("A5 05 00 01 00 03 00 5A", raw("A5 01 A6 5A"));
    EXPECT_EQ("A5 09 00 17 00 58 4B 00 00 00 00 5A", raw("A5 01 A3 5A"));
    EXPECT_EQ("A5 09 00 00 B9 55 69 00 00 00 00 5A", raw("A5 01 49 5A"));
    EXPECT_EQ("A5 02 00 00 5A", raw("A5 01 65 5A"));
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 63 5A"));
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 66 5A"));
    const std::vector<std::string> frames = rig->instrument.framesReceived();
    ASSERT_EQ(8u, frames.size());
    EXPECT_EQ("0: A5 01 A7 5A", frames.front());
    EXPECT_EQ("0: A5 01 66 5A", frames.back());
}

TEST_F(Amplifier, eachKindNamesItself) {
    // Type, hardware and firmware capabilities, connector; versions of firmware and hardware.
    const char* identities[4][6] = {{"00 01", "00 00", "00 01", "00 01", "00 02 07", "00 01 00 03 00"},
                                    {"00 02", "00 01", "00 03", "00 02", "00 03 01", "00 02 00 00 00"},
                                    {"00 03", "00 00", "00 03", "00 01", "00 02 09", "00 01 01 00 00"},
                                    {"00 04", "00 02", "00 01", "00 04", "00 01 04", "00 01 00 00 00"}};
    const char* commands[6] = {"A7", "65", "66", "63", "AA", "A6"};
    const double scaleSpread[4] = {2e-4, 1.3e-3, 3e-4, 5e-4};
    const double offsetSpread[4] = {2.0, 4.0, 1.0, 500.0};
    for (int slot = 0; slot < 4; ++slot) {
        rig->select(slot);
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(identities[slot][i], ask(commands[i])) << slot << " " << commands[i];
        }
        const float scale = number("FA");
        const float offset = number("FB");
        EXPECT_NE(1.0F, scale);
        EXPECT_LE(std::fabs(scale - 1.0F), scaleSpread[slot]);
        EXPECT_NE(0.0F, offset);
        EXPECT_LE(std::fabs(offset), offsetSpread[slot]);
    }
    rig->select(7);
    EXPECT_EQ("no frame: ", ask("A7"));
}

TEST_F(Amplifier, settingsCountFromTheUpdate) {
    const float before = number("FA");
    EXPECT_EQ("00", ask("BC 02"));
    EXPECT_EQ("00 02", ask("BD")) << "read as set";
    EXPECT_EQ(before, number("FA")) << "not in force";
    EXPECT_EQ("00", ask("67"));
    const float after = number("FA");
    EXPECT_NE(before, after);
    // A range that does not exist passes until the update, which leaves everything in force as it was.
    EXPECT_EQ("00", ask("BC 04"));
    EXPECT_EQ("03", ask("67"));
    EXPECT_EQ(after, number("FA"));
    EXPECT_EQ("00", ask("BC 02"));
    EXPECT_EQ("00", ask("67"));
    EXPECT_EQ("00", ask("41 01"));
    EXPECT_EQ("00 00 00 80 3F", ask("FA"));
    EXPECT_EQ("00 00 00 00 00", ask("FB"));
}

TEST_F(Amplifier, everySettingIsReadBackByItsOwnCode) {
    rig->select(1);
    const std::pair<const char*, const char*> codes[] = {{"60 02", "61"}, {"BC 01", "BD"}, {"C8 03", "9F"},
                                                         {"C3 04", "C4"}, {"C9 02", "CA"}, {"6A 05", "6B"},
                                                         {"68 06", "69"}, {"B7 01", "B8"}, {"F7 09", "F8"}};
    for (const auto& [set, get] : codes) {
        EXPECT_EQ("00", ask(set)) << set;
    }
    for (const auto& [set, get] : codes) {
        EXPECT_EQ(std::string("00 ") + (set + 3), ask(get)) << get;
    }
    EXPECT_EQ("00", ask("B9 00 00 20 40"));
    EXPECT_EQ("00 00 00 20 40", ask("BA"));
}

TEST_F(Amplifier, changedMeasurementTakesTheCouplingBackButNotTheRange) {
    rig->select(2);
    ask("C3 02");
    ask("BC 02");
    EXPECT_EQ("00", ask("60 00"));
    EXPECT_EQ("00 02", ask("C4")) << "no change, no reset";
    EXPECT_EQ("00", ask("60 01"));
    EXPECT_EQ("00 00", ask("C4"));
    EXPECT_EQ("00 02", ask("BD"));
    EXPECT_EQ("03", ask("60 02"));
    EXPECT_EQ("00 01", ask("61"));
}

TEST_F(Amplifier, updateChecksWhatBelongsTogether) {
    rig->select(1);
    EXPECT_EQ("00", ask("BC 03"));
    EXPECT_EQ("00", ask("67"));
    EXPECT_EQ("00", ask("60 01"));
    EXPECT_EQ("03", ask("67")) << "two ranges only as a voltmeter";
    EXPECT_EQ("00", ask("BC 01"));
    EXPECT_EQ("00", ask("67"));
    EXPECT_EQ("00", ask("B9 00 00 A0 40"));
    EXPECT_EQ("00", ask("6A 00"));
    EXPECT_EQ("00", ask("67")) << "5 V";
    EXPECT_EQ("00", ask("B9 00 00 C0 40"));
    EXPECT_EQ("03", ask("67")) << "6 V";
    EXPECT_EQ("00", ask("B9 00 00 00 00"));
    EXPECT_EQ("00", ask("C8 05"));
    EXPECT_EQ("03", ask("67")) << "five filters only";
    rig->select(3);
    EXPECT_EQ("03", ask("B7 01")) << "cannot short its input";
    EXPECT_EQ("04", ask("F2 01")) << "has no lamp";
}

TEST_F(Amplifier, teds) {
    EXPECT_EQ("04", ask("D0"));
    EXPECT_EQ("04", ask("D1 01"));
    EXPECT_EQ("00 00", ask("F0"));
    rig->select(2);
    const Bytes rom = bytesOf(ask("D0"));
    ASSERT_EQ(9u, rom.size());
    EXPECT_EQ(0x14, rom[1]);
    EXPECT_EQ("00 01", ask("F0"));
    EXPECT_EQ("04", ask("D1 03 04")) << "no area of its own";
    rig->select(1);
    EXPECT_EQ("00 FF FF", ask("D1 03 02"));
    EXPECT_EQ("00", ask("D1 02 01 5A A5 04"));
    EXPECT_EQ("00", ask("D1 04"));
    EXPECT_EQ("00 01 5A A5 04 FF", ask("D1 03 05"));
    EXPECT_EQ("03", ask("D1 03 21"));
    std::string tooLong = "D1 02";
    for (int i = 0; i < 33; ++i) {
        tooLong += " 00";
    }
    EXPECT_EQ("03", ask(tooLong));
    EXPECT_EQ("00", ask("D1 01"));
    EXPECT_EQ("00 FF FF", ask("D1 03 02"));
}

TEST_F(Amplifier, calibrationMemoryAndFactoryData) {
    EXPECT_EQ("00 01", ask("40"));
    EXPECT_EQ("00 00 01", ask("47"));
    EXPECT_EQ("00", ask("45 FE 00 02 12 34"));
    EXPECT_EQ("00 12 34", ask("46 FE 00 02"));
    EXPECT_EQ("03", ask("46 FF 00 02")) << "beyond the end";
    EXPECT_EQ("03", ask("46 00 00 7D")) << "longer than a reply";
    EXPECT_EQ("02", ask("45 00 00 02 12"));
    EXPECT_EQ("00", ask("A1 2A 00 00 00 00 00 00 00"));
    EXPECT_EQ("00 2A 00 00 00 00 00 00 00", ask("A3"));
    EXPECT_EQ("00", ask("A4 01 02 03 04"));
    EXPECT_EQ("00 01 02 03 04", ask("A6"));
    EXPECT_EQ("00", ask("48 01 00 00 00 00 00 00 00"));
    EXPECT_EQ("00 01 00 00 00 00 00 00 00", ask("49"));
    EXPECT_EQ("00", ask("EA 03 07"));
    EXPECT_EQ("00 03 07", ask("EB 03"));
}

TEST_F(Amplifier, wrongRequestsAreRefused) {
    EXPECT_EQ("01", ask("00"));
    EXPECT_EQ("01", ask("5C"));
    EXPECT_EQ("02", ask("BC"));
    EXPECT_EQ("02", ask("BC 01 02"));
    EXPECT_EQ("02", ask("67 00"));
    EXPECT_EQ("02", ask("B9 00 00"));
    EXPECT_EQ("02", ask("45 00"));
    EXPECT_EQ("03", ask("C9 02"));
    EXPECT_EQ("04", ask("53"));
}

TEST_F(Amplifier, bootModeErasesWhereNormalModeTellsTheDate) {
    EXPECT_EQ("00", ask("57"));
    EXPECT_EQ("04", ask("A7"));
    EXPECT_EQ("00", ask("49"));
    EXPECT_EQ("00", ask("50 01 02 03"));
    EXPECT_EQ("00", ask("53"));
    EXPECT_EQ("00 00 B9 55 69 00 00 00 00", ask("49"));
}

TEST_F(Amplifier, restartForgetsSettingsAndPrintsAText) {
    ask("BC 02");
    EXPECT_EQ("00", ask("5B"));
    rig->now += 0.01;
    uint8_t bytes[64];
    const ssize_t text = rig->instrument.uartRead(bytes, sizeof bytes, 0);
    EXPECT_GE(text, 20);
    EXPECT_LE(text, 60);
    rig->now += 0.2;
    EXPECT_EQ("00 00", ask("BD"));
}

TEST_F(Amplifier, framesAreFoundInWhatArrives) {
    EXPECT_EQ("A5 02 00 01 5A", raw("FF 00 A5 01 A7 5A")) << "behind noise";
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 03 00 A5 01 A7 5A")) << "behind the beginning of another";
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 00 A5 01 A7 5A"));
    // In two pieces it still is one, unless 20 ms lie between.
    const Bytes head = bytesOf("A5 01");
    for (const double pause : {0.005, 0.025}) {
        rig->instrument.uartFlush();
        rig->instrument.uartWrite(head.data(), head.size());
        rig->now += pause;
        EXPECT_EQ(pause < 0.02 ? "A5 02 00 01 5A" : "", raw("A7 5A"));
    }
    // The multiplexer cuts it off too.
    rig->instrument.uartWrite(head.data(), head.size());
    rig->select(1);
    rig->select(0);
    EXPECT_EQ("", raw("A7 5A"));
    // Two requests, two replies.
    EXPECT_EQ("A5 02 00 01 5A A5 02 00 00 5A", raw("A5 01 A7 5A A5 01 65 5A"));
}

TEST_F(Amplifier, replyTakesItsTimeAndComesFromTheSelectedSlotOnly) {
    const Bytes request = bytesOf("A5 01 67 5A");
    uint8_t bytes[16];
    rig->instrument.uartWrite(request.data(), request.size());
    rig->now += 0.019;
    EXPECT_EQ(0, rig->instrument.uartRead(bytes, sizeof bytes, 0));
    rig->now += 0.002;
    EXPECT_EQ(2, rig->instrument.uartRead(bytes, 2, 0));
    EXPECT_EQ(2, rig->instrument.uartRead(bytes, sizeof bytes, 0));
    // What is on its way when the flush comes still arrives.
    rig->instrument.uartWrite(request.data(), request.size());
    rig->instrument.uartFlush();
    rig->now += 0.030;
    EXPECT_EQ(4, rig->instrument.uartRead(bytes, sizeof bytes, 0));
    // What has arrived is flushed; what comes while another slot is selected is lost.
    rig->instrument.uartWrite(request.data(), request.size());
    rig->now += 0.030;
    rig->instrument.uartFlush();
    EXPECT_EQ(0, rig->instrument.uartRead(bytes, sizeof bytes, 0));
    rig->instrument.uartWrite(request.data(), request.size());
    rig->select(1);
    rig->now += 0.030;
    rig->select(0);
    EXPECT_EQ(0, rig->instrument.uartRead(bytes, sizeof bytes, 0));
}

TEST_F(Amplifier, faults) {
    const auto inject = [&](FaultKind kind, int code = 0) {
        rig->instrument.inject({.kind = kind, .target = 0, .code = code});
    };
    inject(FaultKind::AmplifierSilent);
    EXPECT_EQ("", raw("A5 01 A7 5A"));
    inject(FaultKind::AmplifierGarbage);
    EXPECT_EQ("FF 3C A5 F0 00 A5 02 00 01 5A", raw("A5 01 A7 5A"));
    inject(FaultKind::AmplifierGarbage, 128);
    EXPECT_EQ(133u, rig->exchange(bytesOf("A5 01 A7 5A")).size());
    inject(FaultKind::AmplifierBadStatus);
    EXPECT_EQ("A5 01 03 5A", raw("A5 02 BC 01 5A"));
    EXPECT_EQ("00 00", ask("BD")) << "the command was not done";
    inject(FaultKind::AmplifierHalfFrame);
    EXPECT_EQ("A5 02", raw("A5 01 A7 5A"));
    inject(FaultKind::AmplifierLate, 300);
    const double before = rig->now;
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 A7 5A"));
    EXPECT_NEAR(0.302, rig->now - before, 0.002);
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 A7 5A"));
    rig->instrument.inject({.kind = FaultKind::AmplifierSilent, .target = 1, .times = -1});
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 A7 5A")) << "another slot's";
}

TEST_F(Amplifier, otherModuleInTheSlotAnswersAfterItsBoot) {
    ModuleScenario module;
    module.kind = AmplifierKind::HighVoltage;
    rig->instrument.plug(module);
    EXPECT_EQ("", raw("A5 01 A7 5A"));
    EXPECT_EQ("A5 02 00 04 5A", raw("A5 01 A7 5A"));
    rig->instrument.unplug(0);
    EXPECT_EQ("", raw("A5 01 A7 5A"));
    module.slot = 8;
    EXPECT_THROW(rig->instrument.plug(module), std::out_of_range);
}

TEST_F(Amplifier, multiplexerConnectsOneSlotOrNone) {
    const auto set = [&](uint8_t first, uint8_t second) {
        uint8_t a[2] = {0, first};
        uint8_t b[2] = {0, second};
        I2cMessage messages[] = {{0x4D, false, a, 2}, {0x4F, false, b, 2}};
        return rig->instrument.i2cTransfer(messages, 2);
    };
    ASSERT_EQ(2, set(2, 2));
    EXPECT_EQ("00 02", ask("A7"));
    for (const auto& [first, second] : {std::pair<int, int>{3, 3}, {0, 0}, {1, 2}, {0x11, 0x11}}) {
        set(static_cast<uint8_t>(first), static_cast<uint8_t>(second));
        EXPECT_EQ("no frame: ", ask("A7")) << first << " " << second;
    }
    set(4, 4);
    uint8_t read[2] = {};
    I2cMessage messages[] = {{0x4D, true, &read[0], 1}, {0x4F, true, &read[1], 1}};
    const auto readBack = [&] { return rig->instrument.i2cTransfer(messages, 2); };
    EXPECT_EQ(2, readBack());
    EXPECT_EQ(4, read[0]);
    EXPECT_EQ(4, read[1]);
    rig->instrument.inject({.kind = FaultKind::MuxReadsBack, .code = 0x4F});
    EXPECT_EQ(2, readBack());
    EXPECT_EQ(4, read[0]);
    EXPECT_EQ(0, read[1]);
    rig->instrument.inject({.kind = FaultKind::MuxAgain, .times = 2});
    rig->instrument.inject({.kind = FaultKind::MuxError});
    EXPECT_EQ(-EAGAIN, readBack());
    EXPECT_EQ(-EAGAIN, readBack());
    EXPECT_EQ(-EIO, readBack());
    EXPECT_EQ(2, readBack());
}

// With the real clock: a read waits for what is due, and no longer than it was told.
TEST(AmplifierLine, readWaitsForTheReply) {
    Scenario scenario = Scenario::counters(1);
    scenario.supplyOn = true;
    scenario.timeFactor = 0.01;
    Instrument instrument(scenario);
    uint8_t on[2] = {0, 1};
    I2cMessage messages[] = {{0x4D, false, on, 2}, {0x4F, false, on, 2}};
    ASSERT_EQ(2, instrument.i2cTransfer(messages, 2));
    uint8_t bytes[16];
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const Bytes request = bytesOf("A5 01 A7 5A");
        instrument.uartWrite(request.data(), request.size());
    });
    EXPECT_EQ(5, instrument.uartRead(bytes, sizeof bytes, 10000));
    writer.join();
    EXPECT_EQ(0, instrument.uartRead(bytes, sizeof bytes, 5));
}

}  // namespace
