#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <fstream>
#include <functional>

#include "tests/simulator/preload/PreloadFixture.h"

using namespace kestrixsim;

namespace {

// Programs' calls on the CAN ports, through the C library.
class CanSockets : public PreloadTest {
protected:
    void SetUp() override { start({}); }

    static void start(Scenario scenario) {
        reset(std::move(scenario));
        for (const std::string name : {"can0", "can1"}) {
            for (const std::string& line :
                 {name + " type can bitrate 500000", name + " txqueuelen 100", "up " + name}) {
                ASSERT_EQ(0, ::system(("ip link set " + line).c_str()));
            }
        }
    }

    static int bindTo(int fd, const char* name) {
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = static_cast<int>(::if_nametoindex(name));
        return ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    static int bound(const char* name) {
        const int fd = ::socket(AF_CAN, SOCK_RAW, CAN_RAW);
        EXPECT_EQ(0, ::fcntl(fd, F_SETFL, O_NONBLOCK));
        EXPECT_EQ(0, bindTo(fd, name));
        return fd;
    }
    static bool readable(int fd, long milliseconds) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval time{0, milliseconds * 1000};
        const int result = ::select(fd + 1, &set, nullptr, nullptr, &time);
        EXPECT_EQ(result == 1, FD_ISSET(fd, &set));
        return result == 1;
    }
    static double realtime() {
        timespec time{};
        ::clock_gettime(CLOCK_REALTIME, &time);
        return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
    }
};

TEST_F(CanSockets, AFrameGoesOutAndOneComesIn) {
    Descriptor fd(bound("can1"));
    ASSERT_GE(fd, 0);
    struct stat status {};
    EXPECT_EQ(0, ::fstat(fd, &status));
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_FALSE(readable(fd, 0));
    can_frame raw{};
    EXPECT_EQ(-1, ::read(fd, &raw, sizeof raw));
    EXPECT_EQ(EAGAIN, errno);
    CanFrame frame{CanFrame::extended | 0x1234567, 3, {1, 2, 3}};
    instrument().can().transmit(1, frame, instrument().seconds() + 0.02);
    EXPECT_TRUE(readable(fd, 900));
    Descriptor twin(::dup(fd));
    fd.reset();
    EXPECT_EQ(16, ::read(twin, &raw, sizeof raw));
    EXPECT_EQ(frame.id, raw.can_id);
    raw.can_id = 0x77;
    raw.len = 0;
    EXPECT_EQ(16, ::write(twin, &raw, sizeof raw));
    EXPECT_EQ(0, ::fcntl(twin, F_SETFL, 0));  // waits now, for a frame that another socket of the port sends
    Descriptor second(bound("can1"));
    EXPECT_EQ(16, ::write(second, &raw, sizeof raw));
    EXPECT_EQ(16, ::read(twin, &raw, sizeof raw));
    EXPECT_EQ(0x77u, raw.can_id);
    ASSERT_EQ(2u, instrument().can().sent(1).size());
    EXPECT_EQ((CanFrame{0x77, 0, {}}), instrument().can().sent(1)[0].frame);
    EXPECT_TRUE(instrument().can().sent(0).empty());
    int size = 192000;
    EXPECT_EQ(0, ::setsockopt(twin, SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
    socklen_t length = sizeof size;
    EXPECT_EQ(0, ::getsockopt(twin, SOL_SOCKET, SO_RCVBUF, &size, &length));
    EXPECT_EQ(384000, size);
}

TEST_F(CanSockets, OthersGoOn) {
    int pair[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    Descriptor left(pair[0]);
    Descriptor right(pair[1]);
    Descriptor plain(::socket(AF_INET, SOCK_DGRAM, 0));
    int value = 5000;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, ::setsockopt(plain, SOL_SOCKET, SO_RCVBUF, &value, sizeof value));
    EXPECT_EQ(0, ::getsockopt(plain, SOL_SOCKET, SO_RCVBUF, &value, &length));
    EXPECT_EQ(10000, value);
    EXPECT_EQ(0, openDescriptors());
    // One of each kind in one wait.
    Descriptor can(bound("can0"));
    EXPECT_EQ(1, openDescriptors());
    EXPECT_EQ(1, ::write(left, "x", 1));
    pollfd both[] = {{can, POLLIN, 0}, {right, POLLIN, 0}};
    EXPECT_EQ(1, ::poll(both, 2, 1000));
    EXPECT_EQ(POLLIN, both[1].revents);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(can, &set);
    FD_SET(right, &set);
    timeval none{};
    EXPECT_EQ(1, ::select(std::max<int>(can, right) + 1, &set, nullptr, nullptr, &none));
    EXPECT_TRUE(FD_ISSET(right, &set));
    EXPECT_EQ(1u, ::if_nametoindex("lo"));
    EXPECT_EQ(0u, ::if_nametoindex("can5"));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(3 << 8, ::system("exit 3"));
    EXPECT_NE(0, ::system(nullptr));
    Descriptor memory(::open("/dev/mem", O_RDWR));
    EXPECT_EQ(-1, ::setsockopt(memory, SOL_SOCKET, SO_RCVBUF, &value, sizeof value));
    EXPECT_EQ(ENOTSOCK, errno);
}

std::string outputOf(const char* command, int& status) {
    FILE* stream = ::popen(command, "r");
    char text[200] = {};
    if (stream == nullptr || std::fgets(text, sizeof text, stream) == nullptr) {
        text[0] = '\0';
    }
    status = stream != nullptr ? ::pclose(stream) : -1;
    return text;
}

TEST_F(CanSockets, CommandsEndAsTheirs) {
    int status = -2;
    EXPECT_EQ("2\n", outputOf(R"(ls -A /sys/class/net | grep "can" | wc -l)", status));
    EXPECT_EQ(0, status);
    testing::internal::CaptureStderr();
    EXPECT_EQ(2 << 8, ::system("ip link set can0 type can bitrate 250000"));
    EXPECT_EQ("", outputOf("ip link set up can7", status));
    EXPECT_EQ(1 << 8, status);
    EXPECT_EQ("RTNETLINK answers: Device or resource busy\nCannot find device \"can7\"\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, ::system("ip link set down can0"));
    EXPECT_EQ(0, ::system("ip link set can0 type can bitrate 250000"));
    EXPECT_EQ(250000u, instrument().can().state(0).bitrate);
    EXPECT_EQ("ip link set can0 type can bitrate 250000", instrument().commandsRun().back());
    std::ifstream type("/sys/class/net/can1/type");
    std::string line;
    EXPECT_TRUE(std::getline(type, line));
    EXPECT_EQ("280", line);
}

// With the scenario's code or one of its own. A fault strikes once, and at its port.
TEST_F(CanSockets, FaultsHaveTheirCodes) {
    can_frame raw{};
    Descriptor fd(bound("can0"));
    const auto wait = [&] {
        pollfd one{fd, POLLIN, 0};
        return ::poll(&one, 1, 0);
    };
    const struct {
        FaultKind kind;
        int code;
        std::function<ssize_t()> call;
        ssize_t healthy;
        int error;
    } cases[] = {
        {FaultKind::CanBind, ENOBUFS, [&] { return bindTo(fd, "can0"); }, 0, ENOBUFS},
        {FaultKind::CanWait, EINTR, wait, 1, EINTR},
        {FaultKind::CanWait, 0, wait, 1, ENOMEM},
        {FaultKind::CanRead, 0, [&] { return ::read(fd, &raw, sizeof raw); }, 16, EIO},
        {FaultKind::CanWrite, EAGAIN, [&] { return ::write(fd, &raw, sizeof raw); }, 16, EAGAIN},
    };
    for (int i = 0; i < 4; ++i) {
        instrument().can().transmit(0, {1, 0, {}}, 0.0);
    }
    for (const auto& each : cases) {
        const int name = static_cast<int>(each.kind);
        ASSERT_TRUE(readable(fd, 900)) << name;
        instrument().inject({.kind = each.kind, .target = 1, .code = ENOTTY});
        instrument().inject({.kind = each.kind, .target = 0, .code = each.code});
        errno = 0;
        EXPECT_EQ(-1, each.call()) << name;
        EXPECT_EQ(each.error, errno) << name;
        EXPECT_EQ(each.healthy, each.call()) << name;
        instrument().clearFaults();
    }
}

// The stamp is what the program's clock showed at the end of the frame, with its start, its steps and its speed.
TEST_F(CanSockets, StampsAreOfTheProgramsClock) {
    const struct {
        const char* what;
        double factor, start, step;
    } cases[] = {{"the machine's", 1.0, 0.0, 0.0},
                 {"stepped", 1.0, 0.0, 5e6},
                 {"of its own", 1.0, 1.8e9, -2e6},
                 {"fast", 20.0, 1.8e9, 1e6}};
    for (const auto& each : cases) {
        Scenario scenario;
        scenario.timeFactor = each.factor;
        scenario.realtimeAtStart = each.start;
        start(scenario);
        Descriptor fd(bound("can0"));
        timespec stamp{};
        EXPECT_EQ(-1, ::ioctl(fd, SIOCGSTAMPNS, &stamp));  // from now on
        double from = 0.0;
        double until = 1.0;
        double shown = 0.0;
        while (until - from > 2e-5 * each.factor) {  // both clocks at once, as far as it goes
            from = instrument().seconds();
            shown = realtime();
            until = instrument().seconds();
        }
        const CanFrame frame{0x7FF, 0, {}};
        for (const double later : {0.1, 0.2, 0.3}) {
            instrument().can().transmit(0, frame, from + later);
        }
        for (const double later : {0.1, 0.2, 0.3}) {
            EXPECT_TRUE(readable(fd, 900));
            if (later == 0.2) {
                instrument().stepRealtime(each.step);  // the frame was there before it
            }
            can_frame raw{};
            EXPECT_EQ(16, ::read(fd, &raw, sizeof raw));
            EXPECT_EQ(0, ::ioctl(fd, SIOCGSTAMPNS, &stamp));
            const double at = static_cast<double>(stamp.tv_sec) + 1e-9 * static_cast<double>(stamp.tv_nsec);
            const double expected = shown + later + 2e-6 * frame.bits() + (later > 0.25 ? each.step * 1e-6 : 0.0);
            EXPECT_NEAR(expected, at, 4e-5 * each.factor) << each.what << " " << later;
        }
    }
}

// A child finds no frame of its parent's sockets, and closing them there changes nothing here.
TEST_F(CanSockets, AForkedChildLeavesItsParentsSocketsAlone) {
    Descriptor fd(bound("can0"));
    const pid_t child = ::fork();
    if (child == 0) {
        can_frame raw{};
        const bool apart = ::read(fd, &raw, sizeof raw) < 0 && errno == EBADF && ::close(fd) == 0;
        ::_exit(apart ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    can_frame raw{};
    EXPECT_EQ(16, ::write(fd, &raw, sizeof raw));
    // Nothing piles up for a socket that is closed.
    fd.reset();
    for (int i = 0; i < 300; ++i) {
        instrument().can().transmit(0, {1, 0, {}}, 0.0);
    }
    while (instrument().can().state(0).received < 300) {
    }
    EXPECT_EQ(0u, instrument().can().state(0).dropped);
}

}  // namespace
