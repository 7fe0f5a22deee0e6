#include "libraries/protocols/uart/Uart.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>

#include "tests/amplifierlink/ScriptedModule.h"
#include "tests/registers/FailureOf.h"

namespace {

using Harvane::ZornLib::Protocols::Uart::Uart;
using kestrixtest::failureOf;
using kestrixtest::ScriptedModule;

TEST(Uart, initializeMakesTheLineRaw) {
    constexpr tcflag_t input = IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF;
    constexpr tcflag_t output = OPOST | ONLCR;
    constexpr tcflag_t control = CSTOPB | PARENB | CRTSCTS;
    constexpr tcflag_t local = ISIG | ICANON | ECHO | ECHOE | ECHONL;
    ScriptedModule line;
    const int fd = ::open(line.path().c_str(), O_RDWR | O_NOCTTY);
    termios settings{};
    ASSERT_EQ(::tcgetattr(fd, &settings), 0);
    settings.c_iflag |= input;
    settings.c_oflag |= output;
    settings.c_cflag |= control;
    settings.c_lflag |= local;
    ASSERT_EQ(::tcsetattr(fd, TCSANOW, &settings), 0);

    Uart uart(line.path(), B38400, 250);
    uart.openDeviceFile();
    uart.initialize();
    ASSERT_EQ(::tcgetattr(fd, &settings), 0);
    EXPECT_EQ(settings.c_iflag & input, 0u);
    EXPECT_EQ(settings.c_oflag & output, 0u);
    EXPECT_EQ(settings.c_cflag & (control | CSIZE | CREAD | CLOCAL), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    EXPECT_EQ(settings.c_lflag & local, 0u);
    EXPECT_EQ(settings.c_cc[VTIME], 2);
    EXPECT_EQ(settings.c_cc[VMIN], 0);
    EXPECT_EQ(::cfgetispeed(&settings), static_cast<speed_t>(B38400));
    EXPECT_EQ(::cfgetospeed(&settings), static_cast<speed_t>(B38400));

    uart.setTimeout(25600);  // more than the port can wait
    uart.setBaudRate(B9600);
    uart.initialize();
    ASSERT_EQ(::tcgetattr(fd, &settings), 0);
    EXPECT_EQ(settings.c_cc[VTIME], 255);
    EXPECT_EQ(::cfgetospeed(&settings), static_cast<speed_t>(B9600));
    ::close(fd);
}

// The first terminal that a session without one opens becomes its own: with the amplifiers' line, a break on it would
// end the host.
TEST(Uart, portDoesNotBecomeTheTerminalOfTheSession) {
    const ScriptedModule line;
    const std::string& path = line.path();
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        bool refused = true;
        try {
            Uart uart(path, B38400, 200);
            uart.openDeviceFile();
            refused = ::open("/dev/tty", O_RDWR) < 0;
        } catch (...) {
            ::_exit(2);
        }
        ::_exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Uart, failuresKeepTheirLineFeed) {
    Uart missing("/nonexistent/tty", B38400, 200);
    EXPECT_EQ(failureOf([&] { missing.openDeviceFile(); }), "Cannot open file\n");
    std::array<unsigned char, 4> bytes{};
    EXPECT_EQ(failureOf([&] { missing.writeData(bytes.data(), 4); }), "Error: write() failed.\n");
    EXPECT_EQ(failureOf([&] { missing.readData(bytes.data(), 4); }), "Error: read() failed.\n");
    Uart noTerminal("/dev/null", B38400, 200);
    const int next = ::dup(0);
    ::close(next);
    noTerminal.openDeviceFile();  // takes the lowest free descriptor
    EXPECT_EQ(failureOf([&] { noTerminal.initialize(); }), "Error: tcgetattr() failed.\n");
    ASSERT_EQ(::close(next), 0);
    EXPECT_EQ(failureOf([&] { noTerminal.closeDeviceFile(); }), "Error: close file failed.\n");
}

TEST(Uart, descriptorZeroStaysOpen) {
    const int kept = ::dup(0);
    ::close(0);
    {
        Uart uart("/dev/null", B38400, 200);
        uart.openDeviceFile();
    }
    EXPECT_NE(::fcntl(0, F_GETFD), -1);
    if (kept >= 0) {
        ::dup2(kept, 0);
        ::close(kept);
    }
}

}  // namespace
