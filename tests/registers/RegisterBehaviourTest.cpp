#include <gtest/gtest.h>
#include <zorn/logger/logger.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "shared/libraries/kestrix/src/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/AdcControlRegister.h"
#include "shared/libraries/kestrix/src/registers/EepromRegister.h"
#include "shared/libraries/kestrix/src/registers/PllControlRegister.h"
#include "shared/libraries/kestrix/src/registers/Tmp100Register.h"
#include "shared/libraries/kestrix/src/registers/VcxoDriverRegister.h"
#include "tests/registers/FakeAccess.h"

namespace {

using namespace Harvane::Shared::Kestrix;
using Harvane::RT::Core::LogRecord;
using kestrixtest::FakeAccess;

class LogCapture : public Harvane::RT::Core::ILogSink {
public:
    explicit LogCapture(int level) {
        Harvane::RT::Core::addLogSink(this, 0);
        KestrixLogger::get_logger().setLevel(level);
    }
    ~LogCapture() override { Harvane::RT::Core::removeLogSink(this); }
    void write(const LogRecord& record) override {
        if (std::string(record.logger) == "kestrix")
            lines.push_back(std::to_string(record.level) + " " + record.message);
    }
    std::vector<std::string> lines;
};

// What the host lets pass.
void setHostLevel(int level) {
    Harvane::RT::Core::zornCreateLogger("kestrix", level);
    Harvane::RT::Core::ILogger* logger = nullptr;
    ASSERT_EQ(Harvane::RT::Core::zornGetLogger("kestrix", &logger), 0u);
    logger->setLevel(level);
    logger->releaseRef();
}

// A PLL that stays busy for so many reads after a change, or for ever with -1.
class PllAccess : public FakeAccess {
public:
    explicit PllAccess(int busyReads) : busyReads_(busyReads) {}
    void read(uint64_t address, uint64_t offset, unsigned char* data, size_t size) override {
        if (busyReads_ == 0)
            setWord(address + offset, word(address + offset) & ~1u);
        else if (busyReads_ > 0)
            --busyReads_;
        FakeAccess::read(address, offset, data, size);
    }

private:
    int busyReads_;
};

TEST(PllControl, writesOptionWithRequestBitAndKeepsTheRestOfTheWord) {
    for (const auto& [option, field] : {std::pair{ClockOption::Clock15MHz, 1u}, {ClockOption::Clock10MHz, 3u}}) {
        LogCapture log(7);
        auto access = std::make_shared<FakeAccess>();
        PllControlRegister pll(access, 0xB0000000, true);
        access->setWord(0xB0000000, 0xFFFFFFF0);
        // Nobody clears the request bit here, so the second wait runs to its end.
        pll.setClock(option);
        EXPECT_EQ(access->word(0xB0000000), 0xFFFFFFF0u | field);
        EXPECT_EQ(access->writes(), 1u);
    }
}

TEST(PllControl, staysPatientForFiveWaitsOnEachSide) {
    setHostLevel(0);
    LogCapture log(1);
    auto access = std::make_shared<PllAccess>(-1);
    PllControlRegister pll(access, 0xB0000000, true);
    access->setWord(0xB0000000, 0x00000111);
    const auto start = std::chrono::steady_clock::now();
    pll.setClock(ClockOption::Clock10MHz);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(access->writes(), 1u);
    std::vector<std::string> expected;
    for (int side = 0; side < 2; ++side)
        for (int remaining = 4; remaining >= 0; --remaining)
            expected.push_back("3 Waiting for idle PLL (Remaining retry: " + std::to_string(remaining) + ")");
    expected.push_back("1 PLL set: control: 3, pll0LockStatus: true, pll1LockStatus: true");
    EXPECT_EQ(log.lines, expected);
}

TEST(PllControl, idlePllIsNotWaitedFor) {
    setHostLevel(0);
    LogCapture log(1);
    auto access = std::make_shared<PllAccess>(0);
    PllControlRegister pll(access, 0xB0000000, true);
    pll.waitForIdle();
    EXPECT_EQ(log.lines, std::vector<std::string>{});
    EXPECT_EQ(access->accesses.size(), 1u);
}

TEST(PllControl, lockStateIsOnlyReadWhenItIsLogged) {
    LogCapture log(3);
    auto access = std::make_shared<PllAccess>(0);
    PllControlRegister pll(access, 0xB0000000, true);
    pll.setClock(ClockOption::Clock15MHz);
    // Busy test, read-modify-write, busy test.
    EXPECT_EQ(access->accesses.size(), 4u);
}

TEST(AdcControl, neighboursInTheWordStay) {
    auto access = std::make_shared<FakeAccess>();
    AdcControlRegister adc(access, 0xA0200000, true);
    access->setWord(0xA0200004, 0x11223344);
    adc.TMAN.write(0xFF);
    EXPECT_EQ(access->word(0xA0200004), 0x112233FFu);
    adc.TMASK.write(0x01);
    EXPECT_EQ(access->word(0xA0200004), 0x112201FFu);
    for (size_t n = 0; n < 8; n += 2)
        adc.ENDBGCNT[n]->write(true);
    EXPECT_EQ(access->word(0xA0200078), 0x55000000u);
}

TEST(Eeprom, takesTenMillisecondsForEachByte) {
    auto access = std::make_shared<FakeAccess>();
    EepromRegister eeprom(access, 0x50);
    const auto start = std::chrono::steady_clock::now();
    eeprom.Key.write(0xFAF320);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_EQ(access->cell(0x51), std::vector<unsigned char>{0xFA});
    EXPECT_EQ(access->cell(0x52), std::vector<unsigned char>{0xF3});
    EXPECT_EQ(access->cell(0x53), std::vector<unsigned char>{0x20});
}

TEST(VcxoDriver, controlWordLiesInTwoBytes) {
    auto access = std::make_shared<FakeAccess>();
    VcxoDriverRegister vcxo(access, 0x58, true);
    access->setBytes(0x68, {0xFC, 0x00});
    vcxo.R16_XO_BY1.write(506 & 3);
    vcxo.R17_XO_BY0.write(506 >> 2);
    EXPECT_EQ(access->cell(0x68), std::vector<unsigned char>{0xFE});
    EXPECT_EQ(access->cell(0x69), std::vector<unsigned char>{0x7E});
}

TEST(Tmp100, temperatureOfTheSensorsWord) {
    struct {
        unsigned int word;  // first byte on the bus high
        float celsius;
    } const cases[] = {
        {0x0000, 0.0f}, {0x0010, 0.0625f}, {0x1900, 25.0f}, {0x7FF0, 127.9375f},
        {0xFF00, -1.0f}, {0xFFF0, -0.0625f}, {0xC900, -55.0f},
        {0x8000, 128.0f},  // beyond the sensor; stays as it is
        {0x8010, -127.9375f},
    };
    auto access = std::make_shared<FakeAccess>();
    Tmp100Register sensor(access, 0x48, true, true);
    for (const auto& entry : cases) {
        access->setCell(0x48, {static_cast<unsigned char>(entry.word >> 8), static_cast<unsigned char>(entry.word)});
        EXPECT_EQ(sensor.getTemperature(), entry.celsius) << std::hex << entry.word;
    }
}

TEST(KestrixLogger, takesItsLevelFromTheHostWithTheFirstMessage) {
    setHostLevel(4);
    LogCapture log(0);
    KestrixLogger& logger = KestrixLogger::get_logger();
    int evaluations = 0;
    const auto counted = [&evaluations] { return ++evaluations; };
    KESTRIX_LOG(4, "first {}", counted());  // formatted, since nothing is known yet, but below the host's level
    EXPECT_EQ(logger.getLevel(), 5);
    KESTRIX_LOG(4, "second {}", counted());
    EXPECT_EQ(evaluations, 1);
    KESTRIX_LOG(5, "third {}", counted());
    KESTRIX_LOG(6, "fourth");
    EXPECT_EQ(log.lines, (std::vector<std::string>{"4 third 2", "5 fourth"}));
}

TEST(KestrixLogger, hostThatPassesEverythingIsAskedOnce) {
    setHostLevel(0);
    LogCapture log(0);
    KESTRIX_LOG(1, "first");
    EXPECT_EQ(KestrixLogger::get_logger().getLevel(), 1);
    EXPECT_EQ(log.lines, std::vector<std::string>{"0 first"});
    setHostLevel(6);
    KESTRIX_LOG(1, "second");
    EXPECT_EQ(KestrixLogger::get_logger().getLevel(), 1);
}

}  // namespace
