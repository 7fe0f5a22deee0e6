#include "shared/libraries/kestrix/src/UartMux.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>

#include "simulator/preload/Control.h"
#include "tests/registers/FailureOf.h"
#include "tests/registers/LogCapture.h"

namespace {

// The transactions of the bus in order, as "4D<0008 4F<0008" for a write of two messages and "4D>08 4F>08" for a read
// with what came back.
std::vector<std::string> transactions;
std::atomic<bool> recording{false};

void record(const i2c_rdwr_ioctl_data& data) {
    std::string text;
    for (__u32 n = 0; n < data.nmsgs; ++n) {
        const i2c_msg& message = data.msgs[n];
        text += fmt::format("{}{:02X}{}", n == 0 ? "" : " ", message.addr, (message.flags & I2C_M_RD) != 0 ? '>' : '<');
        for (__u16 byte = 0; byte < message.len; ++byte) {
            text += fmt::format("{:02X}", message.buf[byte]);
        }
    }
    transactions.push_back(text);
}

}  // namespace

// In front of the simulated instrument's, which stands in front of the C library's.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    using Ioctl = int (*)(int, unsigned long, ...);
    static const auto next = reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"));
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const int result = next(fd, request, argument);
    if (request == I2C_RDWR && recording) {
        const int error = errno;
        record(*static_cast<const i2c_rdwr_ioctl_data*>(argument));
        errno = error;
    }
    return result;
}

namespace {

using namespace Harvane::Shared::Kestrix;
using kestrixsim::Fault;
using kestrixsim::FaultKind;
using kestrixtest::failureOf;
using kestrixtest::LogCapture;
using Strings = std::vector<std::string>;

constexpr const char* bus = "/dev/i2c-1";

struct UartMuxTest : testing::Test {
    UartMuxTest() { recording = true; }
    ~UartMuxTest() override { recording = false; }

    static void resetInstrument(board_t board, std::vector<Fault> faults = {}) {
        kestrixsim::Scenario scenario;
        scenario.boardType = static_cast<int>(board);
        scenario.slots = board == board_t::eightChannels ? 8 : 2;
        scenario.faults = std::move(faults);
        kestrixsim::reset(scenario);
        transactions.clear();
    }
};

TEST_F(UartMuxTest, writesZeroAndValueInOneTransactionAndReadsItBack) {
    const std::tuple<board_t, int, const char*, const char*, const char*> cases[] = {
        {board_t::eightChannels, 0, "4D<0000 4F<0000 4D<0001 4F<0001", "4D>01 4F>01",
         "2 selecting channel 0 of the 8CH board"},
        {board_t::eightChannels, 7, "4D<0000 4F<0000 4D<0080 4F<0080", "4D>80 4F>80",
         "2 selecting channel 7 of the 8CH board"},
        {board_t::twoChannels, 1, "4F<0000 4F<0022", "4F>22", "2 selecting channel 1 of the 2CH board"},
        {board_t::twoChannels, 7, "4F<0000 4F<0080", "4F>80", "2 selecting channel 7 of the 2CH board"},
    };
    for (const auto& [board, channel, write, read, line] : cases) {
        resetInstrument(board);
        LogCapture log;
        UartMux mux(bus, board);
        mux.selectChannel(channel);
        mux.selectChannel(channel);  // runs in full
        EXPECT_EQ(transactions, (Strings{write, read, write, read}));
        EXPECT_EQ(log.all(), (Strings{"1 opening i2c device /dev/i2c-1", line, line}));
    }
}

TEST_F(UartMuxTest, troubleOnTheBus) {
    const Strings eight{"4 setting amplifiers channel 1, UART mux failed, try 0, retrying...",
                        "4 setting amplifiers channel 1, UART mux failed, try 1, retrying..."};
    const Strings two{"4 setting amplifiers UART mux failed, try 0, retrying..."};
    const std::string stuck = "unable to set amplifiers UART mux";
    struct {
        const char* name;
        std::vector<Fault> faults;
        size_t transactions;
        std::string failure;
        Strings lines = {};
        board_t board = board_t::eightChannels;
        int channel = 1;
    } const cases[] = {
        {"busy nine times", {{.kind = FaultKind::MuxAgain, .times = 9}}, 11, ""},
        {"busy ten times", {{.kind = FaultKind::MuxAgain, .times = 10}}, 10, std::strerror(EAGAIN)},
        {"failing read", {{.kind = FaultKind::MuxError, .afterCount = 1}}, 2, std::strerror(EIO)},
        {"first device forgets", {{.kind = FaultKind::MuxReadsBack, .code = 0x4D, .times = 2}}, 6, "", eight},
        {"second device forgets", {{.kind = FaultKind::MuxReadsBack, .code = 0x4F, .times = 2}}, 6, "", eight},
        {"small board", {{.kind = FaultKind::MuxReadsBack, .code = 0x4F}}, 4, "", two, board_t::twoChannels},
        // Its value would be 0, which connects nothing.
        {"channel beyond the hardware", {}, 0, std::strerror(ENODEV), {}, board_t::eightChannels, 8},
        {"negative channel", {}, 0, std::strerror(ENODEV), {}, board_t::eightChannels, -1},
    };
    for (const auto& entry : cases) {
        SCOPED_TRACE(entry.name);
        resetInstrument(entry.board, entry.faults);
        LogCapture log;
        UartMux mux(bus, entry.board);
        EXPECT_EQ(failureOf([&] { mux.selectChannel(entry.channel); }),
                  entry.failure.empty() ? "no failure" : entry.failure);
        EXPECT_EQ(transactions.size(), entry.transactions);
        Strings lines = log.lines();
        lines.erase(lines.begin());  // of the opening
        EXPECT_EQ(lines, entry.lines);
    }

    resetInstrument(board_t::eightChannels, {{.kind = FaultKind::MuxReadsBack, .code = 0x4F, .times = -1}});
    LogCapture log(5);
    UartMux mux(bus, board_t::eightChannels);
    EXPECT_EQ(failureOf<std::logic_error>([&] { mux.selectChannel(1); }), stuck);
    EXPECT_EQ(transactions.size(), 64u);
    EXPECT_EQ(log.lines(), Strings{"5 " + stuck});
    kestrixsim::instrument().clearFaults();
    EXPECT_NO_THROW(mux.selectChannel(1)) << "the mutex was not released";
}

TEST_F(UartMuxTest, busThatCannotBeOpened) {
    resetInstrument(board_t::eightChannels, {{.kind = FaultKind::I2cOpen, .times = -1}});
    LogCapture log(5);
    EXPECT_EQ(failureOf([] { UartMux mux(bus, board_t::eightChannels); }), std::strerror(ENOENT));
    EXPECT_EQ(log.all(), Strings{"5 unable to open i2c device /dev/i2c-1, No such file or directory"});
}

}  // namespace
