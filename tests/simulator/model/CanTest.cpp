#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <fstream>

#include "simulator/model/CanLog.h"
#include "simulator/model/ScenarioJson.h"
#include "tests/simulator/model/Rig.h"

using namespace kestrixsim;

namespace {

CanFrame frame(uint32_t id, std::initializer_list<uint8_t> data = {}) {
    CanFrame result{id, static_cast<uint8_t>(data.size()), {}};
    std::copy(data.begin(), data.end(), result.data.begin());
    return result;
}

constexpr uint32_t ext = CanFrame::extended;
constexpr uint32_t rtr = CanFrame::remote;

// Counted by a long division of the whole frame's bits and a stuffing of the text of them.
TEST(CanFrames, BitsOnTheWire) {
    const std::pair<CanFrame, int> cases[] = {
        {frame(0), 50},
        {frame(0x7FF), 47},
        {frame(0x123, {0xDE, 0xAD, 0xBE, 0xEF}), 78},
        {frame(0x555, {0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}), 109},
        {frame(0, {0, 0, 0, 0, 0, 0, 0, 0}), 124},
        {frame(0x078, {0x3C, 0x3C, 0x3C, 0x3C, 0x3C, 0x3C, 0x3C, 0x3C}), 128},
        {{rtr | 0x123, 4, {}}, 44},
        {frame(ext), 71},
        {frame(ext | 0x1FFFFFFF, {255, 255, 255, 255, 255, 255, 255, 255}), 146},
        {frame(ext | 0x15555555, {0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}), 128},
        {{ext | rtr | 0x12345678, 8, {}}, 64},
    };
    for (const auto& [each, bits] : cases) {
        EXPECT_EQ(bits, each.bits()) << std::hex << each.id;
    }
}

// The instrument with sockets on its ports, and its time in the test's hand.
class Can : public testing::Test {
protected:
    void make(CanScenario scenario = {}, uint16_t mask = 0xC000) {
        Scenario whole;
        whole.can = std::move(scenario);
        whole.canPorts = mask;
        rig_.emplace(whole);
    }
    void makeShared(std::vector<CanBusScenario> buses = {{}}) {
        make({.interfaces = {{{"can0", 0}, {"can1", 0}, {"can2", 0}}}, .buses = std::move(buses)});
    }
    CanBus& bus() { return rig_->instrument.can(); }
    void wait(double seconds) { rig_->now += seconds; }
    int ip(const std::string& rest) { return rig_->instrument.finishCommand("ip link set " + rest).status; }
    void up(int port, uint32_t bitrate = 500000, const std::string& more = "") {
        const std::string name = bus().state(port).name;
        ASSERT_EQ(0, ip(name + " type can bitrate " + std::to_string(bitrate)));
        ASSERT_EQ(0, more.empty() ? 0 : ip(name + more));
        ASSERT_EQ(0, ip("up " + name));
    }
    int bound(int index) {
        const int socket = bus().open(SOCK_RAW, CAN_RAW);
        EXPECT_EQ(0, bindTo(socket, index));
        return socket;
    }
    int bindTo(int socket, int index, sa_family_t family = AF_CAN, size_t size = sizeof(sockaddr_can)) {
        sockaddr_can address{};
        address.can_family = family;
        address.can_ifindex = index;
        return bus().bind(socket, &address, size);
    }
    // A socket that wants to know when its frames come.
    int onPort(int port) {
        const int socket = bound(bus().indexOf(bus().state(port).name));
        double none = 0.0;
        EXPECT_EQ(-ENOENT, bus().stamp(socket, none));
        return socket;
    }
    ssize_t write(int socket, uint32_t id, uint8_t length = 0) {
        can_frame raw{};
        raw.can_id = id;
        raw.len = length;
        return bus().write(socket, &raw, sizeof raw);
    }
    // Identifiers of what can be read, an error as a negative number.
    std::vector<int64_t> drain(int socket) {
        std::vector<int64_t> ids;
        for (can_frame raw{};;) {
            const ssize_t count = bus().read(socket, &raw, sizeof raw);
            if (count == -EAGAIN) {
                return ids;
            }
            ids.push_back(count < 0 ? count : static_cast<int64_t>(raw.can_id));
        }
    }
    uint32_t memory(int socket, size_t place) {
        uint32_t info[9] = {};
        size_t size = sizeof info;
        EXPECT_EQ(0, bus().getOption(socket, SOL_SOCKET, SO_MEMINFO, info, size));
        return info[place];
    }
    int option(int socket, int level, int name, int value) {
        return bus().setOption(socket, level, name, &value, sizeof value);
    }

    std::optional<Rig> rig_;
};

using Ids = std::vector<int64_t>;

TEST_F(Can, TheStrongestGoesFirstAndTimeIsThatOfItsBits) {
    makeShared();
    up(0);
    up(1);
    const int listener = onPort(1);
    const uint32_t order[] = {0x100, rtr | 0x100, ext | 0x04000000, ext | rtr | 0x04000000, ext | 0x04000001,
                              0x101, 0x7FF};
    const int sender = onPort(0);
    bus().transmit(0, frame(0x7F0), 0.0009);  // takes the bus while the others come
    for (auto id = std::rbegin(order); id != std::rend(order); ++id) {
        if (*id != 0x101) {
            bus().transmit(0, frame(*id), 0.00095);
        }
    }
    wait(0.00095);
    EXPECT_EQ(16, write(sender, 0x101));
    wait(0.1);
    Ids expected{0x7F0};
    expected.insert(expected.end(), std::begin(order), std::end(order));
    EXPECT_EQ(expected, drain(listener));
    // Two ports and a node that wait for the end of a frame, twice the same identifier: ports in their order. Gaps are
    // of three bits, 2 us each.
    const double start = rig_->instrument.seconds();
    bus().transmit(0, frame(0x7F0), start);
    write(listener, 0x200);
    write(sender, 0x200);
    bus().transmit(0, frame(0x1FF), start);
    wait(0.01);
    ASSERT_EQ(2u, bus().sent(0).size());
    ASSERT_EQ(1u, bus().sent(1).size());
    const double first = start + 2e-6 * (frame(0x7F0).bits() + 3 + frame(0x1FF).bits() + 3 + frame(0x200).bits());
    EXPECT_NEAR(first, bus().sent(0)[1].at, 2e-9);
    EXPECT_NEAR(first + 2e-6 * (3 + frame(0x200).bits()), bus().sent(1)[0].at, 2e-9);
    EXPECT_THROW(bus().sent(3), std::out_of_range);
}

TEST_F(Can, WhoHearsWhom) {
    // Port 0 sends, after both have been set; whether it gets through and whether port 1 hears it.
    const struct {
        const char* what;
        bool acknowledged;
        uint32_t rates[2];
        const char* more[2];
        uint64_t sent, heard;
    } cases[] = {
        {"alike", true, {500000, 500000}, {"", ""}, 1, 1},
        {"receiver at another rate", true, {500000, 250000}, {"", ""}, 1, 0},
        {"sender at another rate", true, {250000, 500000}, {"", ""}, 0, 0},
        {"both at another rate", true, {250000, 250000}, {"", ""}, 0, 0},
        {"receiver listens only", true, {500000, 500000}, {"", " type can listen-only on"}, 1, 1},
        {"sender listens only", true, {500000, 500000}, {" type can listen-only on", ""}, 0, 0},
        {"receiver is down", true, {500000, 0}, {"", ""}, 1, 0},
        {"nobody acknowledges but the receiver", false, {500000, 500000}, {"", ""}, 1, 1},
        {"nobody acknowledges", false, {500000, 500000}, {"", " type can listen-only on"}, 0, 0},
    };
    for (const auto& each : cases) {
        makeShared({{.acknowledged = each.acknowledged}});
        for (int port = 0; port < 2; ++port) {
            if (each.rates[port] != 0) {
                up(port, each.rates[port], each.more[port]);
            }
        }
        const int sender = onPort(0);
        EXPECT_EQ(16, write(sender, 0x55)) << each.what;
        wait(0.1);
        EXPECT_EQ(each.sent, bus().state(0).sent) << each.what;
        EXPECT_EQ(each.heard, bus().state(1).received) << each.what;
        EXPECT_EQ(Ids{}, drain(sender)) << each.what;
        const bool listens = bus().state(0).listenOnly;
        EXPECT_EQ(listens ? 1u : 0u, bus().state(0).sendDropped) << each.what;
        EXPECT_EQ(each.sent == 0 && !listens ? 1u : 0u, bus().state(0).queueLength) << each.what;
    }
}

TEST_F(Can, WhoComesLateHearsNoHalfFrame) {
    makeShared();
    up(0);
    const int socket = onPort(0);
    bus().transmit(0, frame(1), 0.0);
    bus().transmit(0, frame(2), 0.001);
    wait(0.00005);
    up(1);
    EXPECT_EQ(0, bindTo(onPort(1), bus().indexOf("can1")));
    wait(0.01);
    // What a socket has heard stays its own when it goes to another port.
    EXPECT_EQ(0, bindTo(socket, bus().indexOf("can1")));
    EXPECT_EQ(1u, bus().state(1).received);
    bus().transmit(0, frame(3), 0.0);
    wait(0.01);
    EXPECT_EQ((Ids{1, 2, 3}), drain(socket));
}

TEST_F(Can, CommandsHaveTheKernelsRules) {
    make({.interfaces = {{{"can0", 0}, {"can1", 1, false}, {"vcan0", 2}, {"can3", 3, true, false}}}});
    const std::tuple<const char*, int, const char*> steps[] = {
        {"up can0", 2, "RTNETLINK answers: Invalid argument\n"},  // no bit rate yet
        {"down can0", 0, ""},
        {"can0 type can bitrate 1000000", 0, ""},
        {"can0 type can bitrate 1000001", 2, "RTNETLINK answers: Numerical argument out of domain\n"},
        {"can0 type can restart-ms 100", 0, ""},
        {"up can0", 0, ""},
        {"up can0", 0, ""},
        {"can0 type can bitrate 125000", 2, "RTNETLINK answers: Device or resource busy\n"},
        {"can0 type can listen-only on", 2, "RTNETLINK answers: Device or resource busy\n"},
        {"can0 type can restart-ms 1", 2, "RTNETLINK answers: Device or resource busy\n"},
        {"can0 txqueuelen 77", 0, ""},
        {"down can0", 0, ""},
        {"can0 type can listen-only on", 0, ""},
        {"can0 type can listen-only yes", 255,
         "Error: argument of \"listen-only\" must be \"on\" or \"off\", not \"yes\"\n"},
        {"can0 type can bitrate 0x1E848", 0, ""},
        {"can0 type can bitrate fast", 255, "Error: argument \"fast\" is wrong: invalid \"bitrate\" value\n\n"},
        {"can0 txqueuelen -1", 255, "Error: argument \"-1\" is wrong: Invalid \"txqueuelen\" value\n\n"},
        {"up can1", 1, "Cannot find device \"can1\"\n"},
        {"can7 txqueuelen 5", 1, "Cannot find device \"can7\"\n"},
        {"vcan0 type can bitrate 500000", 2, "RTNETLINK answers: Operation not supported\n"},
        {"up vcan0", 0, ""},
        {"can3 type can bitrate 500000", 0, ""},
        {"up can3", 2, "RTNETLINK answers: Connection timed out\n"},
    };
    std::vector<std::string> journal;
    for (const auto& [rest, status, text] : steps) {
        journal.push_back(std::string("ip link set ") + rest);
        EXPECT_TRUE(rig_->instrument.ownsCommand(journal.back())) << rest;
        const CommandResult result = rig_->instrument.finishCommand(journal.back());
        EXPECT_EQ(status, result.status) << rest;
        EXPECT_EQ(text, result.errors) << rest;
    }
    EXPECT_EQ(journal, rig_->instrument.commandsRun());
    const CanPortState state = bus().state(0);
    EXPECT_EQ((std::tuple{false, 125000u, true, 77u, 100u}),
              (std::tuple{state.up, state.bitrate, state.listenOnly, state.txQueueLength, state.restartMs}));
    EXPECT_FALSE(bus().state(3).up);
    // Interfaces that are there and have "can" in their name.
    const std::string count = R"(ls -A /sys/class/net | grep "can" | wc -l)";
    EXPECT_EQ("3\n", rig_->instrument.runCommand(count));
    for (const char* foreign :
         {"ip link set up eth0", "ip link show can0", "ip link set up can0 ", "ip link set up can0;ls",
          "ip link set can0 type can", "ip link set can0 type can bitrate 5 loopback on", "ls"}) {
        EXPECT_EQ(std::string(foreign) == "ip link set up can0 ", rig_->instrument.ownsCommand(foreign)) << foreign;
    }
}

TEST_F(Can, QueuesAreTheKernels) {
    makeShared();
    const int early = bus().open(SOCK_RAW, CAN_RAW);
    EXPECT_EQ(-EINVAL, bindTo(early, 3, AF_INET));
    EXPECT_EQ(-EINVAL, bindTo(early, 3, AF_CAN, 7));
    up(0, 500000, " txqueuelen 3");
    up(1);
    EXPECT_EQ(0, bindTo(early, bus().indexOf("can0")));
    for (int i = 0; i < 6; ++i) {  // three wait, one is in the controller
        EXPECT_EQ(i < 4 ? 16 : -ENOBUFS, write(early, 0x10U + static_cast<uint32_t>(i))) << i;
    }
    EXPECT_EQ(4u, bus().state(0).queueLength);
    const int listener = onPort(1);
    const int beside = onPort(0);  // another socket of the sender's port hears it as well
    EXPECT_EQ(0, option(early, SOL_CAN_RAW, CAN_RAW_RECV_OWN_MSGS, 1));
    wait(0.00011);  // one of 47 bits
    EXPECT_EQ(16, write(early, 0x14));
    EXPECT_EQ(-ENOBUFS, write(early, 0x15));
    wait(0.1);
    for (const int socket : {listener, beside, early}) {
        EXPECT_EQ((Ids{0x10, 0x11, 0x12, 0x13, 0x14}), drain(socket));
    }

    EXPECT_EQ(0, option(early, SOL_CAN_RAW, CAN_RAW_LOOPBACK, 0));
    EXPECT_EQ(16, write(early, 0x15));
    wait(0.1);
    EXPECT_EQ(Ids{0x15}, drain(listener));
    EXPECT_EQ(Ids{}, drain(beside));

    // A long queue: the socket's own memory is what ends, 212992 bytes of 768 each.
    EXPECT_EQ(0, ip("can0 txqueuelen 1000"));
    const auto fill = [&](int socket) {
        int count = 0;
        while (write(socket, 0x7FF) == 16) {
            ++count;
        }
        return count;
    };
    EXPECT_EQ(278, fill(beside));
    EXPECT_EQ(-EAGAIN, write(beside, 1));
    EXPECT_EQ(0, bus().ready(beside) & POLLOUT);
    EXPECT_EQ(16, write(early, 0x20));  // it has its own
    bus().close(beside);                // and what it wrote still goes out
    wait(1.0);
    EXPECT_EQ(285u, bus().state(0).sent);
    EXPECT_EQ(0u, memory(early, 2));  // all given back

    // Taken down with frames on their way: gone, and every socket of the port is told once.
    const int fresh = onPort(0);
    EXPECT_EQ(278, fill(fresh));
    EXPECT_EQ(0, ip("down can0"));
    EXPECT_EQ(278u, bus().state(0).sendDropped);
    EXPECT_EQ(0u, bus().state(0).queueLength);
    EXPECT_EQ(0, ip("up can0"));
    EXPECT_EQ(-ENETDOWN, write(fresh, 1));
    EXPECT_EQ(16, write(fresh, 1));
    wait(0.1);
    EXPECT_EQ(286u, bus().state(0).sent);
}

TEST_F(Can, BusOffEndsByItselfOrByHand) {
    makeShared();
    up(0, 500000, " type can restart-ms 100");
    up(1);
    const int socket = onPort(0);
    EXPECT_EQ(0, option(socket, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, CAN_ERR_MASK));
    EXPECT_EQ(16, write(socket, 1));
    bus().goBusOff(0);
    bus().goBusOff(0);
    EXPECT_TRUE(bus().state(0).busOff);
    EXPECT_EQ(16, write(socket, 2));  // taken, and thrown away
    bus().transmit(1, frame(3), 0.05);
    wait(0.0999);
    EXPECT_EQ(Ids{0x20000040}, drain(socket));
    EXPECT_TRUE(bus().state(0).busOff);
    wait(0.0002);
    EXPECT_EQ(Ids{0x20000100}, drain(socket));
    bus().transmit(1, frame(4), 0.0);
    EXPECT_EQ(16, write(socket, 5));
    wait(0.1);
    EXPECT_EQ(Ids{4}, drain(socket));
    EXPECT_EQ(1u, bus().state(0).sent);
    EXPECT_EQ(2u, bus().state(0).sendDropped);
    // Without restart-ms it stays off until it is taken down and up.
    EXPECT_EQ(0, ip("down can0"));
    EXPECT_EQ(0, ip("can0 type can restart-ms 0"));
    EXPECT_EQ(0, ip("up can0"));
    bus().goBusOff(0);
    wait(1000.0);
    EXPECT_TRUE(bus().state(0).busOff);
    EXPECT_EQ(0, ip("down can0"));
    EXPECT_EQ(0, ip("up can0"));
    EXPECT_FALSE(bus().state(0).busOff);
}

TEST_F(Can, FiltersPassWhatTheyName) {
    makeShared();
    up(0);
    const int choosy = onPort(0);
    const can_filter filter[] = {{0x100, 0x7F0}, {0x205 | CAN_INV_FILTER, 0x7FF}};
    EXPECT_EQ(0, bus().setOption(choosy, SOL_CAN_RAW, CAN_RAW_FILTER, filter, sizeof filter));
    EXPECT_EQ(0, option(choosy, SOL_CAN_RAW, CAN_RAW_JOIN_FILTERS, 1));
    for (int i = 0; i < 1000; ++i) {
        bus().transmit(0, frame(0x100U + static_cast<uint32_t>(i)), 0.0);
    }
    wait(1.0);
    EXPECT_EQ(16u, drain(choosy).size());
    EXPECT_EQ(-EBADF, bus().read(4711, nullptr, 0));
}

TEST_F(Can, TablesAndRecordingsArePlayed) {
    const std::string file = testing::TempDir() + "can-test.log";
    std::ofstream(file) << "(100.000000) can0 400#\n(100.004000) can9 401#\n(100.010000) can0 402#\n";
    make({.interfaces = {{{"can0", 0}, {"can1", 1}, {"can2", 2}}},
          .buses = {{.cyclic = {{frame(0x10), 0.01, 0.005}, {frame(0x20, {9, 9, 9, 9, 7}), 0.02, 0.0, 2, true}}},
                    {.log = {file, "can0", 0.5, true}},
                    // More than the bus takes: who is weaker than the strongest hardly gets through, and is replaced.
                    {.cyclic = {{frame(0x1), 0.0001}, {frame(0x2, {0, 0, 0, 0}), 0.0001, 0.0, 0, true}}}}});
    for (int port = 0; port < 3; ++port) {
        up(port);
    }
    const int sockets[] = {onPort(0), onPort(1), onPort(2)};
    wait(0.0451);
    EXPECT_EQ((Ids{0x20, 0x10, 0x10, 0x20, 0x10, 0x10, 0x10}), drain(sockets[0]));
    wait(0.4769);  // 0.522: the recording is 11 ms long, its next round has begun
    EXPECT_EQ((Ids{0x400, 0x402, 0x400, 0x402}), drain(sockets[1]));
    double at = 0.0;
    EXPECT_EQ(0, bus().stamp(sockets[1], at));
    EXPECT_NEAR(0.521 + 2e-6 * frame(0x402).bits(), at, 2e-9);
    const Ids crowd = drain(sockets[2]);
    EXPECT_EQ(278u, crowd.size());
    EXPECT_EQ(1, crowd[0]);
    EXPECT_GT(std::count(crowd.begin(), crowd.end(), 1), 250);

    // An hour that nobody looked at, on full sockets: quickly over, everything counted.
    const uint64_t before = bus().state(1).received;
    wait(3600.0);
    const CanPortState state = bus().state(1);
    EXPECT_NEAR(2 * 3600.0 / 0.011, static_cast<double>(state.received - before), 3.0);
    EXPECT_EQ(state.dropped + 278 + 4, state.received);
    EXPECT_EQ(278u, drain(sockets[1]).size());
    EXPECT_NEAR(3600.0 / (2e-6 * (frame(1).bits() + 3)), static_cast<double>(bus().state(2).received), 1e6);
    wait(0.011);
    EXPECT_EQ(2u, drain(sockets[1]).size());
}

// A node that gets the bus late sends what its table holds by then, and not what it held when it began to wait.
TEST_F(Can, ALateFrameIsTheNewestOfItsRow) {
    make({.buses = {{.cyclic = {{frame(1), 0.0001, 0.0, 100}, {frame(2, {0, 0, 0, 0}), 0.0003, 0.0, 0, true}}}}});
    up(0);
    const int socket = onPort(0);
    wait(0.05);
    std::vector<int> numbers;
    for (can_frame raw{}; bus().read(socket, &raw, sizeof raw) > 0;) {
        if (raw.can_id == 2) {
            double at = 0.0;
            EXPECT_EQ(0, bus().stamp(socket, at));
            numbers.push_back(raw.data[0]);
            const double began = at - 2e-6 * frame(2, {raw.data[0], 0, 0, 0}).bits();
            EXPECT_NEAR(began, 0.0003 * (raw.data[0] + 0.5), 0.000151);
        }
    }
    ASSERT_FALSE(numbers.empty());
    EXPECT_GE(numbers.front(), 33);  // 10 ms and more belonged to the stronger one
    EXPECT_EQ(numbers.size(), static_cast<size_t>(167 - numbers.front()));
}

// What a test may look back at is bounded: the last ones.
TEST_F(Can, RecordsOfDaysEndWithTheNewest) {
    make();
    up(0, 500000, " txqueuelen 300");
    const int socket = onPort(0);
    constexpr uint32_t all = 262'144 + 100;
    for (uint32_t i = 0; i < all; ++i) {
        ASSERT_EQ(16, write(socket, ext | i));
        wait(i % 250 == 249 ? 0.1 : 0.0);
    }
    wait(0.1);
    const auto records = bus().sent(0);
    EXPECT_EQ(all, bus().state(0).sent);
    ASSERT_EQ(262'144u, records.size());
    EXPECT_EQ(ext | 100U, records.front().frame.id);
    EXPECT_EQ(ext | (all - 1), records.back().frame.id);
}

TEST_F(Can, FaultsHitWhatTheyName) {
    makeShared();
    up(0);
    up(1);
    const int socket = onPort(0);
    const int other = onPort(1);
    // At a frame and not before its time, to a socket that asked for no errors; the frame comes after all.
    rig_->instrument.inject({.kind = FaultKind::CanErrorFrame, .target = 0, .code = 0x20, .atSeconds = 0.5});
    bus().transmit(0, frame(1), 0.4);
    bus().transmit(0, frame(2), 0.6);
    bus().transmit(0, frame(CanFrame::error | 4), 0.7);
    wait(1.0);
    EXPECT_EQ((Ids{1, 0x20000020, 2, 0x20000004}), drain(socket));
    EXPECT_EQ((Ids{1, 2, 0x20000004}), drain(other));
    rig_->instrument.inject({.kind = FaultKind::CanBusOff, .target = 1});
    EXPECT_EQ(16, write(other, 3));
    wait(0.1);
    EXPECT_TRUE(bus().state(1).busOff);
    EXPECT_FALSE(bus().state(0).busOff);
    EXPECT_EQ(Ids{}, drain(socket));
    EXPECT_EQ(Ids{}, drain(other));
}

// A socket keeps times from its first question on, which is answered by its own time. What came before it has one if
// something else on the machine had asked.
TEST_F(Can, StampsAreTakenFromTheFirstQuestionOn) {
    for (const bool fromStart : {true, false}) {
        make({.stampsFromStart = fromStart});
        up(0);
        const int socket = bound(bus().indexOf("can0"));
        double at = 0.0;
        can_frame raw{};
        bus().transmit(0, frame(1), 0.1);
        bus().transmit(0, frame(2), 0.2);
        wait(0.3);
        const double asked = rig_->instrument.seconds();
        for (const bool first : {true, false}) {
            EXPECT_EQ(16, bus().read(socket, &raw, sizeof raw));
            for (int again = 0; again < 2; ++again) {
                EXPECT_EQ(0, bus().stamp(socket, at));
                EXPECT_NEAR(fromStart && !first ? 0.2 + 2e-6 * frame(2).bits() : asked + (first ? 0.0 : 0.1), at, 2e-9);
                wait(again == 0 && first ? 0.1 : 0.0);
            }
        }
        bus().transmit(0, frame(3), 0.5);
        wait(0.3);
        EXPECT_EQ(16, bus().read(socket, &raw, sizeof raw));
        EXPECT_EQ(0, bus().stamp(socket, at));
        EXPECT_NEAR(0.5 + 2e-6 * frame(3).bits(), at, 2e-9);
    }
}

TEST(CanLogs, LinesAreReadOrRefusedWithTheirNumber) {
    const auto entries = CanLog::parse(
        "(1436509052.249713) can0 123#DEADBEEF\n\n(1436509052.2) vcan1 1FFFFFFF#R8\r\n"
        "(1436509053) can0 20000004#0001020304050607 R\n(1436509053) can0 000# T",
        "log");
    ASSERT_EQ(4u, entries.size());
    EXPECT_EQ((CanFrame{ext | rtr | 0x1FFFFFFF, 8, {}}), entries[0].frame);
    EXPECT_EQ(0, entries[0].nanoseconds);
    EXPECT_EQ(frame(0x123, {0xDE, 0xAD, 0xBE, 0xEF}), entries[1].frame);
    EXPECT_EQ(49'713'000, entries[1].nanoseconds);
    EXPECT_EQ(frame(CanFrame::error | 4, {0, 1, 2, 3, 4, 5, 6, 7}), entries[2].frame);
    EXPECT_EQ(frame(0), entries[3].frame);
    const std::pair<std::string, const char*> mistakes[] = {
        {"can0 123#", "begin with a time"},
        {"(1.5 can0 123#", "no \")\""},
        {"(-1) can0 123#", "begin with a time"},
        {"(1.0000000001) can0 123#", "more than 9 decimals"},
        {"(99999999999) can0 123#", "more than 9 decimals"},
        {"(1.) can0 123#", "begin with a time"},
        {"(1)can0 123#", "a blank behind the time"},
        {"(1) can0", "no blank behind the interface"},
        {"(1)  123#", "name an interface"},
        {"(1) can0 1234#", "3 or 8 hexadecimal"},
        {"(1) can0 12G#", "3 or 8 hexadecimal"},
        {"(1) can0 800#", "above 7FF"},
        {"(1) can0 40000000#", "above 1FFFFFFF"},
        {"(1) can0 123", "no \"#\""},
        {"(1) can0 123#1", "two hexadecimal digits"},
        {"(1) can0 123#112233445566778899", "two hexadecimal digits"},
        {"(1) can0 123#1x", "two hexadecimal digits"},
        {"(1) can0 123##011", "CAN FD"},
        {"(1) can0 123#R9", "length from 0 to 8"},
        {"(1) can0 20000001#R", "two hexadecimal digits"},
    };
    for (const auto& [line, reason] : mistakes) {
        try {
            CanLog::parse("(1) can0 123#\n" + line + "\n", "log");
            ADD_FAILURE() << "not refused: " << line;
        } catch (const ScenarioError& error) {
            EXPECT_EQ(0u, std::string(error.what()).find("log:2: ")) << error.what();
            EXPECT_NE(std::string::npos, std::string(error.what()).find(reason)) << line << "\n" << error.what();
        }
    }
    EXPECT_TRUE(CanLog::parse("", "log").empty());
    EXPECT_EQ(1u, CanLog::parse("(1) can0 1FF#\n(2) can1 1FF#", "log", "can1").size());
}

}  // namespace
