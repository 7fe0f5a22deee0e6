#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <vector>

#include "simulator/model/ScenarioJson.h"
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
    const double before = realtime();
    EXPECT_TRUE(readable(fd, 900));
    Descriptor twin(::dup(fd));
    fd.reset();
    EXPECT_EQ(16, ::read(twin, &raw, sizeof raw));
    EXPECT_EQ(frame.id, raw.can_id);
    EXPECT_EQ(0, std::memcmp(raw.data, "\1\2\3\0\0\0\0", 8));
    timeval stamp{};
    EXPECT_EQ(0, ::ioctl(twin, SIOCGSTAMP, &stamp));
    const double at = static_cast<double>(stamp.tv_sec) + 1e-6 * static_cast<double>(stamp.tv_usec);
    EXPECT_GE(at, before);
    EXPECT_LE(at, realtime());
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

// What a program's call does when the fault strikes, and that it strikes once. A fault names its port.
TEST_F(CanSockets, EveryCallCanFail) {
    can_frame raw{};
    timeval stamp{};
    int value = 1;
    Descriptor fd(-1);
    const auto wait = [&] {
        pollfd one{fd, POLLIN, 0};
        return ::poll(&one, 1, 0);
    };
    const auto selects = [&] {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval none{};
        return ::select(fd + 1, &set, nullptr, nullptr, &none);
    };
    const struct {
        FaultKind kind;
        int code;
        std::function<ssize_t()> call;
        ssize_t result, healthy;
        int error;
    } cases[] = {
        {FaultKind::CanSocket, 0, [] { return Descriptor(::socket(AF_CAN, SOCK_RAW, CAN_RAW)) < 0 ? -1 : 0; }, -1, 0,
         EAFNOSUPPORT},
        {FaultKind::CanIndex, 0, [] { return ::if_nametoindex("can0") == 0 ? 0 : 1; }, 0, 1, ENODEV},
        {FaultKind::CanFlags, 0, [&] { return ::fcntl(fd, F_SETFL, O_NONBLOCK); }, -1, 0, EPERM},
        {FaultKind::CanBind, ENOBUFS, [&] { return bindTo(fd, "can0"); }, -1, 0, ENOBUFS},
        {FaultKind::CanOption, 0, [&] { return ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &value, sizeof value); }, -1, 0,
         ENOBUFS},
        {FaultKind::CanWait, EINTR, selects, -1, 1, EINTR},
        {FaultKind::CanWait, 0, wait, -1, 1, ENOMEM},
        {FaultKind::CanRead, 0, [&] { return ::read(fd, &raw, sizeof raw); }, -1, 16, EIO},
        {FaultKind::CanShortRead, 0, [&] { return ::read(fd, &raw, sizeof raw); }, 8, 16, 0},
        {FaultKind::CanWrite, EAGAIN, [&] { return ::write(fd, &raw, sizeof raw); }, -1, 16, EAGAIN},
        {FaultKind::CanShortWrite, 0, [&] { return ::write(fd, &raw, sizeof raw); }, 8, 16, 0},
        {FaultKind::CanStamp, 0, [&] { return ::ioctl(fd, SIOCGSTAMP, &stamp); }, -1, 0, ENOENT},
        {FaultKind::CanUp, 0,
         [] {
             ::system("ip link set down can0");
             return ::system("ip link set up can0");
         },
         2 << 8, 0, 0},
        {FaultKind::CanCommandStatus, 4, [] { return ::system("ip link set up can0"); }, 4 << 8, 0, 0},
        {FaultKind::CanCommandFails, 0, [] { return ::system("ip link set up can0"); }, -1, 0, ENOMEM},
    };
    testing::internal::CaptureStderr();
    for (const auto& each : cases) {
        fd.reset(bound("can0"));
        for (int i = 0; i < 4; ++i) {
            instrument().can().transmit(0, {1, 0, {}}, 0.0);
        }
        const int name = static_cast<int>(each.kind);
        ASSERT_TRUE(readable(fd, 900)) << name;
        ASSERT_EQ(16, ::read(fd, &raw, sizeof raw)) << name;
        const bool ofPort = each.kind != FaultKind::CanSocket && each.kind != FaultKind::CanCommandStatus &&
                            each.kind != FaultKind::CanCommandFails;
        if (ofPort) {
            instrument().inject({.kind = each.kind, .target = 1, .code = ENOTTY});
        }
        instrument().inject({.kind = each.kind, .target = ofPort ? 0 : -1, .code = each.code});
        errno = 0;
        EXPECT_EQ(each.result, each.call()) << name;
        EXPECT_EQ(each.error, errno) << name;
        EXPECT_EQ(each.healthy, each.call()) << name;
        instrument().clearFaults();
    }
    testing::internal::GetCapturedStderr();
    instrument().inject({.kind = FaultKind::CanCommandSilent});
    int status = 0;
    EXPECT_EQ("", outputOf(R"(ls -A /sys/class/net | grep "can" | wc -l)", status));
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

// The delivered example says what the keys mean; every one comes back.
TEST(CanScenarios, TheExampleReadsAndWritesAlike) {
    const Scenario scenario = ScenarioJson::read(KESTRIX_SCENARIOS "/can.json");
    ASSERT_TRUE(scenario.can.interfaces.has_value());
    EXPECT_EQ(2u, scenario.can.buses.size());
    Instrument instrument(scenario);
    EXPECT_EQ(static_cast<int>(scenario.can.interfaces->size()), instrument.can().ports());
    Scenario full = scenario;
    full.can.stampsFromStart = false;
    full.can.kernel = true;
    full.can.interfaces->push_back({"pcan7", 3, false, false, true});
    full.can.buses.push_back({12345, false, {{{CanFrame::remote | 5, 8, {}}, 0.25, 1.5, 7, false}}, {}});
    for (int kind = static_cast<int>(FaultKind::CanErrorFrame); kind <= static_cast<int>(FaultKind::CanStamp); ++kind) {
        full.faults.push_back({.kind = static_cast<FaultKind>(kind)});
    }
    full.faults.push_back({.kind = FaultKind::CanRead, .target = 31, .code = 5});
    const std::string text = ScenarioJson::write(full);
    const Scenario back = ScenarioJson::parse(text, "full");
    EXPECT_EQ(text, ScenarioJson::write(back));
    EXPECT_EQ(full.can.buses.back().cyclic[0].frame, back.can.buses.back().cyclic[0].frame);
    EXPECT_EQ(full.can.buses[0].cyclic[0].frame, back.can.buses[0].cyclic[0].frame);
    EXPECT_EQ(3, back.can.interfaces->back().bus);
    EXPECT_TRUE(back.can.interfaces->back().isVirtual());
    EXPECT_FALSE(back.can.interfaces->front().isVirtual());
    EXPECT_FALSE(back.can.stampsFromStart);
    EXPECT_TRUE(back.can.kernel);
    ASSERT_EQ(full.faults.size(), back.faults.size());
    for (size_t i = 0; i < back.faults.size(); ++i) {
        EXPECT_EQ(full.faults[i].kind, back.faults[i].kind);
    }
}

TEST(CanScenarios, MistakesAreNamed) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"interfaces": [{}]})", "can.interfaces[0].name: is missing"},
        {R"({"interfaces": [{"name": "../x"}]})", "can.interfaces[0].name: is \"../x\", must be 1 to 15 letters"},
        {R"({"interfaces": [{"name": "a"}, {"name": "a"}]})", "can.interfaces[1].name: is \"a\", which another"},
        {R"({"buses": [{"bitrate": 0}]})", "can.buses[0].bitrate: is 0, must be from 5000"},
        {R"({"buses": [{"cyclic": [{"id": 2048}]}]})", "cyclic[0].id: is 2048, must be from 0 to 2047"},
        {R"({"buses": [{"cyclic": [{"id": 1, "data": "123"}]}]})", "cyclic[0].data: is \"123\", must be 0 to 8"},
        {R"({"buses": [{"cyclic": [{"id": 1, "data": "12", "remote": true}]}]})", "data: goes with no remote"},
        {R"({"buses": [{"cyclic": [{"id": 1, "data": "12", "length": 2}]}]})", "length: is 2, must be from 1 to 1"},
        {R"({"buses": [{"cyclic": [{"id": 1, "counter": true}]}]})", "counter: is true, but there are not four"},
        {R"({"buses": [{"log": {"file": ""}}]})", "can.buses[0].log.file: is empty"},
    };
    for (const auto& [text, expected] : cases) {
        try {
            ScenarioJson::parse("{\"can\": " + std::string(text) + "}", "s");
            ADD_FAILURE() << "not refused: " << text;
        } catch (const ScenarioError& error) {
            EXPECT_NE(std::string::npos, std::string(error.what()).find(expected)) << error.what();
        }
    }
    TemporaryFolder folder;
    std::ofstream(folder / "traffic.log") << "(1.0) can0 123#\n(1.0) can0 12#\n";
    std::ofstream(folder / "s.json") << R"({"can": {"buses": [{"log": {"file": "traffic.log"}}]}})";
    try {
        ScenarioJson::read(folder / "s.json");
        ADD_FAILURE() << "not refused";
    } catch (const ScenarioError& error) {
        EXPECT_NE(std::string::npos, std::string(error.what()).find("traffic.log:2: must have")) << error.what();
    }
}

}  // namespace
