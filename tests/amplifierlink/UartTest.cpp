#include "libraries/protocols/uart/Uart.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <functional>
#include <stdexcept>

#include "tests/amplifierlink/ScriptedModule.h"

namespace {

using Harvane::ZornLib::Protocols::Uart::Uart;
using kestrixtest::ScriptedModule;

std::string failureOf(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return "no failure";
}

termios settingsOf(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    termios settings{};
    EXPECT_EQ(::tcgetattr(fd, &settings), 0);
    ::close(fd);
    return settings;
}

TEST(Uart, initializeMakesTheLineRaw) {
    ScriptedModule line;
    const int fd = ::open(line.path().c_str(), O_RDWR | O_NOCTTY);
    termios before{};
    ASSERT_EQ(::tcgetattr(fd, &before), 0);
    before.c_iflag |= IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF;
    before.c_oflag |= OPOST | ONLCR;
    before.c_cflag |= CSTOPB | PARENB | CRTSCTS;
    before.c_lflag |= ISIG | ICANON | ECHO | ECHOE | ECHONL;
    ASSERT_EQ(::tcsetattr(fd, TCSANOW, &before), 0);

    Uart uart(line.path(), B38400, 250);
    uart.openDeviceFile();
    uart.initialize();
    termios after = settingsOf(line.path());
    constexpr tcflag_t input = IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF;
    constexpr tcflag_t local = ISIG | ICANON | ECHO | ECHOE | ECHONL;
    EXPECT_EQ(after.c_iflag & input, 0u);
    EXPECT_EQ(after.c_oflag & (OPOST | ONLCR), 0u);
    EXPECT_EQ(after.c_cflag & (CSTOPB | PARENB | CRTSCTS), 0u);
    EXPECT_EQ(after.c_cflag & (CSIZE | CREAD | CLOCAL), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    EXPECT_EQ(after.c_lflag & local, 0u);
    EXPECT_EQ(after.c_cc[VTIME], 2);
    EXPECT_EQ(after.c_cc[VMIN], 0);
    EXPECT_EQ(::cfgetispeed(&after), static_cast<speed_t>(B38400));
    EXPECT_EQ(::cfgetospeed(&after), static_cast<speed_t>(B38400));

    // Changes wait for the next initialize.
    uart.setTimeout(1000);
    uart.setBaudRate(B9600);
    EXPECT_EQ(settingsOf(line.path()).c_cc[VTIME], 2);
    uart.initialize();
    after = settingsOf(line.path());
    EXPECT_EQ(after.c_cc[VTIME], 10);
    EXPECT_EQ(::cfgetospeed(&after), static_cast<speed_t>(B9600));
    ::close(fd);
}

TEST(Uart, movesBytesAndGivesNothingAfterTheTimeout) {
    ScriptedModule line;
    line.script({"01 02 03"});
    Uart uart(line.path(), B38400, 200);
    uart.openDeviceFile();
    uart.initialize();
    const std::array<unsigned char, 4> request{0xA5, 0x01, 0x67, 0x5A};
    EXPECT_EQ(uart.writeData(request.data(), request.size()), 4u);
    std::array<unsigned char, 8> reply{};
    EXPECT_EQ(uart.readData(reply.data(), reply.size()), 3u);
    EXPECT_EQ(reply[2], 3);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(uart.readData(reply.data(), reply.size()), 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_EQ(line.takeRequests(), std::vector<std::string>{"A5 01 67 5A"});
}

TEST(Uart, failuresKeepTheirLineFeed) {
    Uart missing("/nonexistent/tty", B38400, 200);
    EXPECT_EQ(failureOf([&] { missing.openDeviceFile(); }), "Cannot open file\n");
    std::array<unsigned char, 4> bytes{};
    EXPECT_EQ(failureOf([&] { missing.writeData(bytes.data(), 4); }), "Error: write() failed.\n");
    EXPECT_EQ(failureOf([&] { missing.readData(bytes.data(), 4); }), "Error: read() failed.\n");
    Uart noTerminal("/dev/null", B38400, 200);
    noTerminal.openDeviceFile();
    EXPECT_EQ(failureOf([&] { noTerminal.initialize(); }), "Error: tcgetattr() failed.\n");
    noTerminal.closeDeviceFile();
    noTerminal.setDeviceFileName("/nonexistent/tty");
    EXPECT_EQ(failureOf([&] { noTerminal.openDeviceFile(); }), "Cannot open file\n");
}

TEST(Uart, closeFailsWhenTheDescriptorIsGone) {
    const int next = ::dup(0);
    ::close(next);
    Uart uart("/dev/null", B38400, 200);
    uart.openDeviceFile();  // takes the lowest free descriptor
    ASSERT_EQ(::close(next), 0);
    EXPECT_EQ(failureOf([&] { uart.closeDeviceFile(); }), "Error: close file failed.\n");
    uart.closeDeviceFile();
}

TEST(Uart, descriptorZeroStaysOpen) {
    const int kept = ::dup(0);
    ::close(0);
    {
        Uart uart("/dev/null", B38400, 200);
        uart.openDeviceFile();
        uart.closeDeviceFile();
        EXPECT_NE(::fcntl(0, F_GETFD), -1);
    }
    EXPECT_NE(::fcntl(0, F_GETFD), -1);
    if (kept >= 0) {
        ::dup2(kept, 0);
        ::close(kept);
    }
}

}  // namespace
