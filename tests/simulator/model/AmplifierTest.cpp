#include <gtest/gtest.h>

#include <cerrno>

#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

using Bytes = std::vector<uint8_t>;

std::string hex(const Bytes& bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        text += std::string(text.empty() ? "" : " ") + "0123456789ABCDEF"[byte >> 4] + "0123456789ABCDEF"[byte & 15];
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

// One of each kind, in the order of AmplifierKind.
struct Amplifier : testing::Test {
    Amplifier() { plugIn(); }

    void plugIn() {
        Scenario scenario;
        scenario.supplyOn = true;
        for (int slot = 0; slot < 5; ++slot) {
            scenario.modules.push_back({.slot = slot, .kind = static_cast<AmplifierKind>(slot), .waveform = {}});
        }
        rig = std::make_unique<Rig>(scenario);
        rig->select(0);
    }

    std::string raw(const std::string& request) { return hex(rig->exchange(bytesOf(request))); }
    std::string ask(const std::string& command) { return hex(rig->ask(bytesOf(command))); }

    std::unique_ptr<Rig> rig;
};

TEST_F(Amplifier, answersAreThoseOfTheFirmware) {
    // What is asked and what is answered, in this order.
    const std::tuple<const char*, int, std::string> dialogues[] = {
        {"every setting is read back by its own code", 1,
         "60 02: 00 | BC 01: 00 | C8 03: 00 | C3 04: 00 | C9 02: 00 | 6A 05: 00 | 68 06: 00 | B7 01: 00 | F7 09: 00 | "
         "B9 00 00 20 40: 00 | 61: 00 02 | BD: 00 01 | 9F: 00 03 | C4: 00 04 | CA: 00 02 | 6B: 00 05 | 69: 00 06 | "
         "B8: 00 01 | F8: 00 09 | BA: 00 00 00 20 40"},
        {"a changed measurement takes the coupling back, but not the range", 2,
         "C3 02: 00 | BC 02: 00 | 60 00: 00 | C4: 00 02 | 60 01: 00 | C4: 00 00 | BD: 00 02 | 60 02: 03 | 61: 00 01"},
        {"there is one type of excitation: the second is staged, but no update takes it", 1,
         "B9 00 00 A0 40: 00 | 67: 00 | 6A 01: 00 | 67: 03 | 6A 00: 00 | 67: 00"},
        {"raw mode reports no calibration", 0, "41 01: 00 | 42: 00 01 | FA: 00 00 00 80 3F | FB: 00 00 00 00 00"},
        {"the TEDS area is kept over a restart", 1,
         "D1 03 02: 00 FF FF | D1 02 01 5A A5 04: 00 | D1 04: 00 | 57: 00 | 53: 00 | D1 03 05: 00 01 5A A5 04 FF | "
         "D1 03 21: 03 | D1 02 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
         "00 00 00 00: 03 | D1 01: 00 | D1 03 02: 00 FF FF"},
        {"calibration memory up to its end, and no more than a reply holds", 0,
         "40: 00 01 | 47: 00 00 01 | 45 FE 00 02 12 34: 00 | 46 FE 00 02: 00 12 34 | 46 FF 00 02: 03 | 46 00 00 7D: 03 "
         "| "
         "45 00 00 02 12: 02"},
        {"factory data", 0,
         "A1 2A 00 00 00 00 00 00 00: 00 | A3: 00 2A 00 00 00 00 00 00 00 | A4 01 02 03 04: 00 | A6: 00 01 02 03 04 | "
         "48 01 00 00 00 00 00 00 00: 00 | 49: 00 01 00 00 00 00 00 00 00 | EA 03 07: 00 | EB 03: 00 03 07"},
        {"wrong requests are refused", 0,
         "00: 01 | 5C: 01 | BC: 02 | BC 01 02: 02 | 67 00: 02 | B9 00 00: 02 | 45 00: 02 | C9 02: 03 | 53: 04"},
        {"in boot mode one code erases that tells the date elsewhere", 0,
         "57: 00 | A7: 04 | 49: 00 | 50 01 02 03: 00 | 53: 00 | 49: 00 00 B9 55 69 00 00 00 00"}};
    for (const auto& [name, slot, lines] : dialogues) {
        plugIn();
        rig->select(slot);
        for (size_t at = 0; at < lines.size();) {
            const size_t colon = lines.find(": ", at);
            const size_t end = std::min(lines.find(" | ", at), lines.size());
            const std::string request = lines.substr(at, colon - at);
            EXPECT_EQ(lines.substr(colon + 2, end - colon - 2), ask(request)) << name << ": " << request;
            at = end + 3;
        }
    }
}

TEST_F(Amplifier, restartForgetsSettingsAndPrintsAText) {
    ask("BC 02");
    EXPECT_EQ("00", ask("5B"));
    rig->now += 0.03;
    uint8_t bytes[64];
    const ssize_t text = rig->instrument.uartRead(bytes, sizeof bytes, 0);
    EXPECT_GE(text, 20);
    EXPECT_LE(text, 60);
    rig->now += 0.2;
    EXPECT_EQ("00 00", ask("BD"));
}

TEST_F(Amplifier, framesAreFoundInWhatArrives) {
    EXPECT_EQ("A5 02 00 01 5A", raw("FF 00 A5 01 A7 5A")) << "behind noise";
    EXPECT_EQ(std::vector<std::string>{"0: A5 01 A7 5A"}, rig->instrument.framesReceived());
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
    EXPECT_EQ("A5 02 00 01 5A A5 02 00 00 5A", raw("A5 01 A7 5A A5 01 65 5A")) << "two requests, two replies";
}

TEST_F(Amplifier, replyComesByteByByteFromTheSelectedSlotOnly) {
    const Bytes request = bytesOf("A5 01 67 5A");  // takes 20 ms, and each byte on the line 0.26 ms
    uint8_t bytes[16];
    const auto write = [&] { rig->instrument.uartWrite(request.data(), request.size()); };
    const auto readAfter = [&](double seconds, size_t size = sizeof bytes) {
        rig->now += seconds;
        return rig->instrument.uartRead(bytes, size, 0);
    };
    write();
    EXPECT_EQ(0, readAfter(0.0209));
    EXPECT_EQ(1, readAfter(0.0002));
    EXPECT_EQ(0, readAfter(0.0));
    EXPECT_EQ(2, readAfter(0.0052, 2)) << "no more than there is room for";
    EXPECT_EQ(1, readAfter(0.0));
    write();
    rig->instrument.uartFlush();
    EXPECT_EQ(4, readAfter(0.030)) << "what was on its way when the flush came";
    write();
    EXPECT_EQ(1, readAfter(0.0211, 1));
    rig->instrument.uartFlush();
    EXPECT_EQ(3, readAfter(0.002)) << "the rest of a reply that was flushed in the middle";
    write();
    rig->now += 0.030;
    rig->instrument.uartFlush();
    EXPECT_EQ(0, readAfter(0.0));
    write();
    rig->select(1);
    rig->now += 0.030;
    rig->select(0);
    EXPECT_EQ(0, readAfter(0.0)) << "it came while another slot was selected";
}

TEST_F(Amplifier, faults) {
    // reply: to "which type are you".
    const std::tuple<FaultKind, int, const char*> cases[] = {
        {FaultKind::AmplifierSilent, 0, ""},
        {FaultKind::AmplifierGarbage, 0, "FF 3C A5 F0 00 A5 02 00 01 5A"},
        {FaultKind::AmplifierBadStatus, 0, "A5 01 03 5A"},
        {FaultKind::AmplifierBadStatus, 7, "A5 01 07 5A"},
        {FaultKind::AmplifierHalfFrame, 0, "A5 02"},
        {FaultKind::AmplifierLate, 300, "A5 02 00 01 5A"}};
    for (const auto& [kind, code, reply] : cases) {
        rig->instrument.inject({.kind = kind, .target = 0, .code = code});
        const double before = rig->now;
        EXPECT_EQ(reply, raw("A5 01 A7 5A"));
        EXPECT_EQ(kind == FaultKind::AmplifierLate, rig->now - before > 0.3 && rig->now - before < 0.31);
        EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 A7 5A"));
    }
    rig->instrument.inject({.kind = FaultKind::AmplifierGarbage, .code = 128});
    EXPECT_EQ(133u, rig->exchange(bytesOf("A5 01 A7 5A")).size());
    rig->instrument.inject({.kind = FaultKind::AmplifierBadStatus});
    EXPECT_EQ("03", ask("BC 01"));
    EXPECT_EQ("00 00", ask("BD")) << "the command was not done";
    rig->instrument.inject({.kind = FaultKind::AmplifierSilent, .target = 1, .times = -1});
    EXPECT_EQ("A5 02 00 01 5A", raw("A5 01 A7 5A")) << "another slot's";
    rig->instrument.inject({.kind = FaultKind::AmplifierBadStatus, .command = 0x67});
    EXPECT_EQ("00", ask("BC 01")) << "another command";
    EXPECT_EQ("03", ask("67"));
    rig->instrument.inject({.kind = FaultKind::AmplifierNan});
    EXPECT_EQ("00 01", ask("A7")) << "waits for the scale";
    EXPECT_TRUE(std::isnan(rig->number(0xFA)));
    EXPECT_FALSE(std::isnan(rig->number(0xFB)));
    uint8_t byte = 0;
    rig->instrument.inject({.kind = FaultKind::UartWrite});
    rig->instrument.inject({.kind = FaultKind::UartRead});
    EXPECT_EQ(-EIO, rig->instrument.uartWrite(&byte, 1));
    EXPECT_EQ(-EIO, rig->instrument.uartRead(&byte, 1, 0));
    EXPECT_EQ("00 01", ask("A7"));
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
        EXPECT_EQ("", ask("A7")) << first << " " << second;
    }
}

}  // namespace
