#include "shared/libraries/kestrix/src/UartMux.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "simulator/preload/Control.h"
#include "tests/amplifierlink/IoctlRecorder.h"
#include "tests/amplifierlink/LogCapture.h"

namespace {

using namespace Harvane::Shared::Kestrix;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixtest::LogCapture;
using kestrixtest::takeTransactions;
using Strings = std::vector<std::string>;

constexpr const char* bus = "/dev/i2c-1";

void resetInstrument(int boardType, std::vector<Fault> faults = {}) {
    kestrixsim::Scenario scenario;
    scenario.boardType = boardType;
    scenario.slots = boardType == 0 ? 8 : 2;
    scenario.faults = std::move(faults);
    kestrixsim::reset(scenario);
    takeTransactions();
}

Fault fault(FaultKind kind, int64_t times, uint64_t afterCount = 0, int code = 0) {
    Fault result;
    result.kind = kind;
    result.times = times;
    result.afterCount = afterCount;
    result.code = code;
    return result;
}

TEST(UartMux, writesZeroAndValueInOneTransactionAndReadsItBack) {
    struct {
        board_t board;
        int channel;
        const char* write;
        const char* read;
    } const cases[] = {
        {board_t::eightChannels, 0, "4D<0000 4F<0000 4D<0001 4F<0001", "4D>01 4F>01"},
        {board_t::eightChannels, 3, "4D<0000 4F<0000 4D<0008 4F<0008", "4D>08 4F>08"},
        {board_t::eightChannels, 7, "4D<0000 4F<0000 4D<0080 4F<0080", "4D>80 4F>80"},
        {board_t::twoChannels, 0, "4F<0000 4F<0011", "4F>11"},
        {board_t::twoChannels, 1, "4F<0000 4F<0022", "4F>22"},
        {board_t::twoChannels, 7, "4F<0000 4F<0080", "4F>80"},
    };
    LogCapture log;
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.write);
        resetInstrument(static_cast<int>(entry.board));
        UartMux mux(bus, entry.board);
        mux.selectChannel(entry.channel);
        EXPECT_EQ(takeTransactions(), (Strings{entry.write, entry.read}));
        mux.selectChannel(entry.channel);
        EXPECT_EQ(takeTransactions().size(), 2u) << "the same channel again runs in full";
    }
    const Strings lines = log.all();
    ASSERT_EQ(lines.size(), 3 * std::size(cases));
    EXPECT_EQ(lines[0], "1 opening i2c device /dev/i2c-1");
    EXPECT_EQ(lines[4], "2 selecting channel 3 of the 8CH board");
    EXPECT_EQ(lines[13], "2 selecting channel 1 of the 2CH board");
}

TEST(UartMux, channelThatNoModuleCanHaveFailsInsteadOfConnectingNothing) {
    resetInstrument(0);
    UartMux mux(bus, board_t::eightChannels);
    for (const int channel : {-1, 8, 32, 200})
        EXPECT_THROW(mux.selectChannel(channel), std::runtime_error) << channel;
    EXPECT_EQ(takeTransactions(), Strings{});
}

TEST(UartMux, busyBusIsTriedTenTimes) {
    resetInstrument(0, {fault(FaultKind::MuxAgain, 9)});
    UartMux mux(bus, board_t::eightChannels);
    EXPECT_NO_THROW(mux.selectChannel(2));
    EXPECT_EQ(takeTransactions().size(), 11u);

    kestrixsim::instrument().clearFaults();
    kestrixsim::instrument().inject(fault(FaultKind::MuxAgain, 10));
    try {
        mux.selectChannel(2);
        FAIL() << "the tenth refusal was not taken as one";
    } catch (const std::runtime_error& failure) {
        EXPECT_STREQ(failure.what(), std::strerror(EAGAIN));
    }
    EXPECT_EQ(takeTransactions().size(), 10u);
}

TEST(UartMux, otherFailureOfTheBusIsNotRepeated) {
    // The write goes well, the read behind it fails.
    resetInstrument(0, {fault(FaultKind::MuxError, 1, 1)});
    UartMux mux(bus, board_t::eightChannels);
    try {
        mux.selectChannel(1);
        FAIL() << "the failed read was not noticed";
    } catch (const std::runtime_error& failure) {
        EXPECT_STREQ(failure.what(), std::strerror(EIO));
    }
    EXPECT_EQ(takeTransactions().size(), 2u);
    EXPECT_NO_THROW(mux.selectChannel(1)) << "the mutex was not released";
}

TEST(UartMux, wrongValueRepeatsTheWholeSequence) {
    struct {
        int board;
        int silentDevice;
        const char* text;
    } const cases[] = {
        {0, 0x4D, "4 setting amplifiers channel 1, UART mux failed, try {}, retrying..."},
        {0, 0x4F, "4 setting amplifiers channel 1, UART mux failed, try {}, retrying..."},
        {1, 0x4F, "4 setting amplifiers UART mux failed, try {}, retrying..."},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.text);
        resetInstrument(entry.board, {fault(FaultKind::MuxReadsBack, 3, 0, entry.silentDevice)});
        LogCapture log;
        UartMux mux(bus, static_cast<board_t>(entry.board));
        EXPECT_NO_THROW(mux.selectChannel(1));
        EXPECT_EQ(takeTransactions().size(), 8u);
        Strings expected;
        for (int n = 0; n < 3; ++n)
            expected.push_back(fmt::format(fmt::runtime(entry.text), n));
        EXPECT_EQ(log.lines(), expected);
    }
}

TEST(UartMux, valueThatNeverStaysEndsInALogicError) {
    resetInstrument(0, {fault(FaultKind::MuxReadsBack, -1, 0, 0x4F)});
    LogCapture log(5);
    UartMux mux(bus, board_t::eightChannels);
    try {
        mux.selectChannel(1);
        FAIL() << "nobody noticed";
    } catch (const std::logic_error& failure) {
        EXPECT_STREQ(failure.what(), "unable to set amplifiers UART mux");
    }
    EXPECT_EQ(takeTransactions().size(), 64u);
    EXPECT_EQ(log.lines(), Strings{"5 unable to set amplifiers UART mux"});
}

TEST(UartMux, busThatCannotBeOpened) {
    resetInstrument(0, {fault(FaultKind::I2cOpen, -1)});
    LogCapture log;
    try {
        UartMux mux(bus, board_t::eightChannels);
        FAIL() << "opened";
    } catch (const std::runtime_error& failure) {
        EXPECT_STREQ(failure.what(), std::strerror(ENOENT));
    }
    EXPECT_EQ(log.all().back(), "5 unable to open i2c device /dev/i2c-1, No such file or directory");
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

}  // namespace
