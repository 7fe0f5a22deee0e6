#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "libraries/protocols/can/CanSocket.h"
#include "tests/can/kernel/Interfaces.h"
#include "tests/can/kernel/RawSocket.h"

using namespace Harvane::Test;
using namespace Harvane::ZornLib::Protocols::CAN;

namespace {

using Ids = std::vector<canid_t>;

void pauseMs(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

int statusOf(int waited) {
    return waited < 0 ? waited : WEXITSTATUS(waited);
}

class CanKernel : public testing::Test {
protected:
    CanKernel() { makeInterfaces(); }

    static CanSocket opened(const std::string& name = "can0", std::uint32_t receiveBufferSize = 192000) {
        CanSocket socket;
        auto info = socket.getSocketInfo();
        info.interfaceName = name;
        info.bitrate = 500000;
        info.receiveBufferSize = receiveBufferSize;
        socket.setSocketInfo(info);
        EXPECT_EQ(socket.start(), 0) << name;
        // The kernel begins to stamp a little after it has been asked to.
        pauseMs(50);
        return socket;
    }
    static void up(const std::string& name) { EXPECT_EQ(Commands(name).runLinkSetUp(), 0) << name; }
    static void down(const std::string& name) { EXPECT_EQ(Commands(name).runLinkSetDown(), 0) << name; }
    static std::int32_t receive(CanSocket& socket) {
        CanSockFrameInfo frame;
        return socket.receive(frame);
    }
    // Once something is there.
    static std::int32_t awaited(CanSocket& socket, CanSockFrameInfo& frame) {
        pollfd wait{socket.getSocketFd(), POLLIN, 0};
        EXPECT_EQ(::poll(&wait, 1, 1000), 1);
        return socket.receive(frame);
    }
    // Behind all that has been written on an interface.
    static void fence(const std::string& name = "can0") {
        EXPECT_EQ(RawSocket(name).write(rawFrame(RawSocket::fence)), 16);
    }
    static Ids idsOf(CanSocket& socket) {
        Ids ids;
        for (CanSockFrameInfo frame; awaited(socket, frame) >= 0 && frame.canId != RawSocket::fence;) {
            ids.push_back(static_cast<canid_t>(frame.canId));
        }
        return ids;
    }
};

TEST_F(CanKernel, CodesThatAKernelGives) {
    const std::uint8_t data[9] = {};
    const auto startOf = [](const std::string& name) {
        CanSocket socket;
        auto info = socket.getSocketInfo();
        info.interfaceName = name;
        socket.setSocketInfo(info);
        const auto result = socket.start();
        EXPECT_EQ(socket.getSocketFd(), -105);
        return result;
    };
    struct {
        const char* what;
        std::int32_t code;
        std::function<std::int32_t()> call;
    } const rows[] = {
        {"nine bytes", -102, [&] { return opened().send(data, 9, 1); }},
        {"eight bytes", 0, [&] { return opened().send(data, 8, 1); }},
        {"an open one once more", -104, [] { return opened().start(); }},
        {"no such interface", -110, [&] { return startOf("can7"); }},
        // The tool isn't found on this path, which doesn't count, and the interface is no CAN one.
        {"another kind of interface", -112,
         [&] {
             const char* const before = std::getenv("PATH");
             const std::string path = before != nullptr ? before : "";
             ::setenv("PATH", "/nowhere", 1);
             const auto result = startOf("lo");
             ::setenv("PATH", path.c_str(), 1);
             return result;
         }},
        {"sending on what is down", -113,
         [&] {
             CanSocket socket = opened();
             down("can0");
             EXPECT_EQ(receive(socket), -114);
             const auto result = socket.send(data, 8, 1);
             EXPECT_EQ(errno, ENETDOWN);
             return result;
         }},
        {"receiving on what went down", -114,
         [] {
             CanSocket socket = opened();
             down("can0");
             return receive(socket);
         }},
        {"the same again", -116,
         [] {
             CanSocket socket = opened();
             down("can0");
             EXPECT_EQ(receive(socket), -114);
             return receive(socket);
         }},
        {"an error frame that was asked for", -115,
         [] {
             CanSocket socket = opened();
             const RawSocket peer("can0");
             const can_err_mask_t all = CAN_ERR_MASK;
             EXPECT_EQ(::setsockopt(socket.getSocketFd(), SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &all, sizeof all), 0);
             EXPECT_EQ(peer.write(rawFrame(CAN_ERR_FLAG | 0x20, Bytes(8))), 16);
             CanSockFrameInfo frame;
             const auto result = awaited(socket, frame);
             EXPECT_TRUE(frame.errorFrame);
             EXPECT_EQ(frame.canId, 0u);
             return result;
         }},
        {"an error frame that was not", -116,
         [] {
             CanSocket socket = opened();
             EXPECT_EQ(RawSocket("can0").write(rawFrame(CAN_ERR_FLAG | 0x20, Bytes(8))), 16);
             fence();
             EXPECT_EQ(idsOf(socket), Ids());
             return receive(socket);
         }},
        {"nothing there", -116,
         [] {
             CanSocket socket = opened();
             return receive(socket);
         }},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.call(), row.code) << row.what;
    }
}

TEST_F(CanKernel, FramesArriveAsTheyAre) {
    CanSocket socket = opened();
    const RawSocket peer("can0");
    EXPECT_EQ(peer.bound, 0);
    struct {
        canid_t raw;
        bool extended;
        bool remote;
        std::uint64_t id;
    } const rows[] = {
        {0, false, false, 0},
        {0x7FF, false, false, 0x7FF},
        {CAN_EFF_FLAG, true, false, 0},
        {CAN_EFF_FLAG | 0x7FF, true, false, 0x7FF},
        {CAN_EFF_FLAG | 0x800, true, false, 0x800},
        {CAN_EFF_FLAG | 0x1FFFFFFF, true, false, 0x1FFFFFFF},
        {CAN_RTR_FLAG | 0x123, false, true, 0x123},
        {CAN_RTR_FLAG | CAN_EFF_FLAG | 0x12345678, true, true, 0x12345678},
    };
    std::uint8_t length = 0;
    for (const auto& row : rows) {
        for (length = 0; length <= 8; ++length) {
            SCOPED_TRACE(testing::Message() << std::hex << row.raw << " " << int{length});
            can_frame sent = rawFrame(row.raw, row.remote ? Bytes() : Bytes(length, 0xA5));
            sent.can_dlc = length;
            ASSERT_EQ(peer.write(sent), 16);
            CanSockFrameInfo frame;
            ASSERT_EQ(awaited(socket, frame), length);
            EXPECT_EQ(frame.extendedFormat, row.extended);
            EXPECT_EQ(frame.remoteRequest, row.remote);
            EXPECT_FALSE(frame.errorFrame);
            EXPECT_EQ(frame.canId, row.id);
            EXPECT_EQ(frame.dataLength, length);
            EXPECT_EQ(std::memcmp(frame.data, sent.data, sizeof sent.data), 0);
            // And the other way, always with the extended format.
            if (!row.remote) {
                ASSERT_EQ(socket.send(frame.data, length, static_cast<std::uint32_t>(row.id)), 0);
                const auto back = peer.next();
                ASSERT_TRUE(back.has_value());
                sent.can_id = static_cast<canid_t>(row.id) | CAN_EFF_FLAG;
                EXPECT_EQ(std::memcmp(&*back, &sent, sizeof sent), 0);
            }
        }
    }
    // Without a controller on the way what a program wrote comes whole: bits beyond the identifier, bytes beyond the
    // length.
    can_frame odd = rawFrame(0x812, Bytes(8, 0x77));
    odd.can_dlc = 2;
    ASSERT_EQ(peer.write(odd), 16);
    const RawSocket other("can0");
    ASSERT_EQ(peer.write(odd), 16);
    const auto raw = other.next();
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(std::memcmp(&*raw, &odd, sizeof odd), 0);
    CanSockFrameInfo frame;
    ASSERT_EQ(awaited(socket, frame), 2);
    EXPECT_EQ(frame.canId, 0x12u);
    EXPECT_EQ(frame.data[2], 0);
}

// Who hears whom: the other sockets of the interface, in order; nobody on another one; oneself only when asked for.
TEST_F(CanKernel, OrderAndEcho) {
    CanSocket first = opened();
    CanSocket second;
    EXPECT_EQ(second.start(), 0);  // takes the interface down and up
    EXPECT_EQ(receive(first), -114);
    const RawSocket peer("can0");
    up("can1");
    const RawSocket elsewhere("can1");
    const RawSocket everywhere;
    EXPECT_EQ(everywhere.bind(0), 0);
    constexpr std::uint32_t count = 250;  // a socket that wasn't asked has room for 278
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t data[] = {static_cast<std::uint8_t>(i)};
        // Identifiers fall: on a bus the last ones would go first.
        ASSERT_EQ(i % 2 == 0 ? first.send(data, 1, 1000 - i) : peer.write(rawFrame(1000 - i, {data[0]})),
                  i % 2 == 0 ? 0 : 16);
    }
    fence();
    fence("can1");
    Ids all;
    Ids odd;
    Ids even;
    for (std::uint32_t i = 0; i < count; ++i) {
        all.push_back(1000 - i);
        (i % 2 == 0 ? even : odd).push_back(1000 - i);
    }
    EXPECT_EQ(idsOf(first), odd);
    EXPECT_EQ(idsOf(second), all);
    Ids heard = peer.ids();
    std::for_each(heard.begin(), heard.end(), [](canid_t& id) { id &= CAN_EFF_MASK; });
    EXPECT_EQ(heard, even);
    EXPECT_EQ(everywhere.ids().size(), count);  // the other fence comes later
    EXPECT_EQ(elsewhere.ids(), Ids());

    EXPECT_EQ(peer.set(CAN_RAW_RECV_OWN_MSGS, 1), 0);
    EXPECT_EQ(peer.write(rawFrame(5)), 16);
    fence();
    EXPECT_EQ(peer.ids(), Ids{5});
    EXPECT_EQ(idsOf(first), Ids{5});
    EXPECT_EQ(peer.set(CAN_RAW_LOOPBACK, 0), 0);
    EXPECT_EQ(peer.write(rawFrame(6)), 16);
    fence();
    EXPECT_EQ(peer.ids(), Ids());
    EXPECT_EQ(idsOf(first), Ids());
}

// A frame that finds no room is lost, and counted; what is there stays in order.
TEST_F(CanKernel, AFullBufferDropsTheLast) {
    struct {
        std::uint32_t bytes;
        canid_t room;  // frames
    } const rows[] = {{1, 3}, {10000, 27}, {192000, 500}, {1000000, 555}};
    const RawSocket peer("can0");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        CanSocket socket = opened("can0", row.bytes);
        EXPECT_EQ(peer.write(rawFrame(1)), -ENETDOWN);  // as the interface was in between
        EXPECT_EQ(socket.getKernelDrops(), 0);
        for (canid_t i = 0; i < 700; ++i) {
            ASSERT_EQ(peer.write(rawFrame(i)), 16);
        }
        for (int i = 0; i < 1000 && socket.getKernelDrops() < 700 - row.room; ++i) {
            pauseMs(1);
        }
        EXPECT_EQ(socket.getKernelDrops(), 700 - row.room);
        CanSockFrameInfo frame;
        for (canid_t i = 0; i < row.room; ++i) {
            ASSERT_EQ(socket.receive(frame), 0) << i;
            ASSERT_EQ(frame.canId, i);
        }
        EXPECT_EQ(receive(socket), -116);
        ASSERT_EQ(peer.write(rawFrame(7)), 16);
        EXPECT_EQ(awaited(socket, frame), 0);
        EXPECT_EQ(socket.getKernelDrops(), 700 - row.room);
    }
}

// A stamp is of the time between writing and having written, however late it is read. A socket that never asked has
// none: its question is answered by the time of the question, and so again.
TEST_F(CanKernel, StampsAreOfTheArrival) {
    const RawSocket peer("can0");
    up("can0");
    can_frame raw{};
    EXPECT_EQ(peer.write(rawFrame(1)), -ENETDOWN);
    const RawSocket late("can0");
    const RawSocket asks("can0");
    EXPECT_EQ(asks.stamp(), -ENOENT);
    pauseMs(50);
    EXPECT_EQ(peer.write(rawFrame(1)), 16);
    EXPECT_EQ(peer.write(rawFrame(2)), 16);
    EXPECT_TRUE(late.readable(1000));
    pauseMs(20);
    std::int64_t asked = realtimeUs();
    ASSERT_EQ(late.read(raw), 16);
    const std::int64_t first = late.stamp();
    EXPECT_GE(first, asked);
    pauseMs(5);
    EXPECT_EQ(late.stamp(), first);
    // Stamped for the other socket, and from its first question on this one keeps it.
    ASSERT_EQ(late.read(raw), 16);
    EXPECT_LT(late.stamp(), asked);

    CanSocket socket = opened();
    EXPECT_EQ(peer.write(rawFrame(1)), -ENETDOWN);
    CanSocket other;
    EXPECT_EQ(other.start(), 0);
    EXPECT_EQ(receive(socket), -114);
    EXPECT_EQ(peer.write(rawFrame(1)), -ENETDOWN);
    pauseMs(50);
    for (int i = 0; i < 5; ++i) {
        const std::int64_t before = realtimeUs();
        ASSERT_EQ(peer.write(rawFrame(3)), 16);
        const std::int64_t after = realtimeUs();
        pauseMs(20);
        for (CanSocket* each : {&socket, &other}) {
            CanSockFrameInfo frame;
            ASSERT_EQ(awaited(*each, frame), 0);
            EXPECT_GE(static_cast<std::int64_t>(frame.timestamp), before) << i;
            EXPECT_LE(static_cast<std::int64_t>(frame.timestamp), after) << i;
        }
    }
}

TEST_F(CanKernel, DownAndUpAgain) {
    up("can0");
    const RawSocket peer("can0");
    RawSocket bound("can0");
    can_frame raw{};
    EXPECT_EQ(peer.write(rawFrame(1)), 16);
    down("can0");
    EXPECT_EQ(peer.write(rawFrame(2)), -ENETDOWN);  // that it went down
    EXPECT_EQ(peer.write(rawFrame(2)), -ENETDOWN);  // that it is down
    up("can0");
    EXPECT_EQ(peer.write(rawFrame(3)), 16);
    // First the error, once, and then what came before it and behind it.
    EXPECT_TRUE(bound.readable(0));
    EXPECT_EQ(bound.read(raw), -ENETDOWN);
    fence();
    EXPECT_EQ(bound.ids(), (Ids{1, 3}));
    EXPECT_EQ(bound.read(raw), -EAGAIN);
    // An error that nobody has read hits the next write, even on an interface that is up again.
    down("can0");
    up("can0");
    EXPECT_EQ(bound.write(rawFrame(4)), -ENETDOWN);
    EXPECT_EQ(bound.write(rawFrame(5)), 16);
    down("can0");
    const RawSocket toLate("can0");
    EXPECT_EQ(toLate.bound, 0);
    EXPECT_TRUE(toLate.readable(0));
    EXPECT_EQ(toLate.read(raw), -ENETDOWN);
    EXPECT_EQ(toLate.read(raw), -EAGAIN);
}

TEST_F(CanKernel, CallsThatAreNone) {
    up("can0");
    const RawSocket peer("can0");
    const RawSocket bound("can0");
    const RawSocket unbound;
    const unsigned index = ::if_nametoindex("can0");
    EXPECT_GT(index, 0u);
    EXPECT_NE(index, ::if_nametoindex("can1"));
    EXPECT_EQ(::if_nametoindex("can7"), 0u);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(unbound.bind(::if_nametoindex("lo")), -ENODEV);
    EXPECT_EQ(unbound.bind(9999), -ENODEV);
    EXPECT_EQ(unbound.write(rawFrame(1)), -ENXIO);
    EXPECT_EQ(unbound.write(rawFrame(1), 8), -EINVAL);
    EXPECT_EQ(::socket(AF_CAN, SOCK_DGRAM, CAN_RAW), -1);
    EXPECT_EQ(errno, EPROTOTYPE);
    EXPECT_EQ(::socket(AF_CAN, SOCK_RAW, 99), -1);
    EXPECT_EQ(errno, EINVAL);
    can_frame raw{};
    EXPECT_EQ(bound.read(raw), -EAGAIN);
    for (const size_t size : {0, 8, 15}) {
        EXPECT_EQ(peer.write(rawFrame(1), size), -EINVAL) << size;
    }
    can_frame tooLong = rawFrame(1);
    tooLong.can_dlc = 9;
    EXPECT_EQ(peer.write(tooLong), -EINVAL);
    // Half a frame is the whole of it: the rest is gone. Nothing is nothing.
    EXPECT_EQ(peer.write(rawFrame(0x11)), 16);
    EXPECT_EQ(peer.write(rawFrame(0x12)), 16);
    EXPECT_TRUE(bound.readable(1000));
    EXPECT_EQ(bound.read(raw, 0), 0);
    EXPECT_EQ(bound.read(raw, 8), 8);
    fence();
    EXPECT_EQ(raw.can_id, 0x11u);
    EXPECT_EQ(bound.ids(), Ids{0x12});
    down("can0");
    EXPECT_EQ(peer.write(rawFrame(1), 8), -EINVAL);
    EXPECT_EQ(peer.write(tooLong), -ENETDOWN);  // that it went down
    EXPECT_EQ(peer.write(tooLong), -EINVAL);
    EXPECT_EQ(peer.write(rawFrame(1)), -ENETDOWN);
}

// What the tool answers decides nothing, but people look at it.
TEST_F(CanKernel, WhatTheToolSays) {
    EXPECT_EQ(Commands::getNoOfCANPorts(), 3);  // the one called vcan0 counts
    struct {
        const char* name;
        int status[6];  // down, bit rate, restart, queue, up, listen-only
    } const rows[] = {
        {"can0", {0, 2, 2, 0, 0, 2}},
        {"can9", {1, 1, 1, 1, 1, 1}},
        {"ctl0", {0, 0, 0, 0, 0, 2}},
    };
    for (const auto& row : rows) {
        const Commands commands{std::string(row.name)};
        const int status[] = {commands.runLinkSetDown(),
                              commands.runLinkSetBitrate(500000),
                              commands.runLinkSetRestartTimeout(100),
                              commands.runLinkSetTxQueueLength(100),
                              commands.runLinkSetUp(),
                              commands.runIsListenOnly(true)};
        for (size_t i = 0; i < std::size(status); ++i) {
            EXPECT_EQ(statusOf(status[i]), row.status[i]) << row.name << " " << i;
        }
    }
    const Commands fresh{std::string("ctl1")};
    EXPECT_EQ(statusOf(fresh.runLinkSetUp()), 2);        // no bit rate yet
    EXPECT_EQ(statusOf(fresh.runLinkSetBitrate(0)), 0);  // asks for nothing
    EXPECT_EQ(statusOf(fresh.runLinkSetUp()), 2);
    EXPECT_EQ(statusOf(fresh.runLinkSetBitrate(10000000)), 2);
    EXPECT_EQ(statusOf(fresh.runLinkSetBitrate(250000)), 0);
    EXPECT_EQ(statusOf(fresh.runIsListenOnly(true)), 0);
    EXPECT_EQ(statusOf(fresh.runIsListenOnly(false)), 0);
    EXPECT_EQ(statusOf(fresh.runLinkSetUp()), 0);
    EXPECT_EQ(statusOf(fresh.runLinkSetUp()), 0);
    EXPECT_EQ(statusOf(fresh.runLinkSetBitrate(500000)), 2);
    EXPECT_EQ(statusOf(fresh.runLinkSetRestartTimeout(1)), 2);
}

// With extended frames alone, and none received by one that has been down: the emulated controllers garble those.
TEST_F(CanKernel, ControllersOnABus) {
    CanSocket one = opened("ctl0");
    CanSocket two = opened("ctl1");
    const RawSocket beside("ctl0");
    const RawSocket far("ctl1");
    const std::uint8_t data[] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (std::uint8_t length = 0; length <= 8; ++length) {
        ASSERT_EQ(one.send(data, length, 0x800u + length), 0);
        // The bus first, and then the other sockets of the sender.
        const auto arrived = far.next();
        ASSERT_TRUE(arrived.has_value());
        can_frame expected = rawFrame(CAN_EFF_FLAG | (0x800u + length), Bytes(data, data + length));
        EXPECT_EQ(std::memcmp(&*arrived, &expected, sizeof expected), 0);
        const auto echo = beside.next();
        ASSERT_TRUE(echo.has_value());
        EXPECT_EQ(echo->can_id, expected.can_id);
        CanSockFrameInfo frame;
        EXPECT_EQ(awaited(two, frame), length);
        EXPECT_EQ(std::memcmp(frame.data, expected.data, sizeof frame.data), 0);
    }
    EXPECT_EQ(receive(one), -116);  // none of its own
    can_frame remote = rawFrame(CAN_EFF_FLAG | CAN_RTR_FLAG | 0x7FF, Bytes(8, 9));
    remote.can_dlc = 4;
    ASSERT_EQ(far.write(remote), 16);
    CanSockFrameInfo frame;
    EXPECT_EQ(awaited(one, frame), 4);
    EXPECT_TRUE(frame.remoteRequest);
    EXPECT_EQ(frame.canId, 0x7FFu);
    EXPECT_EQ(frame.data[0], 0);  // a remote frame has none
    EXPECT_TRUE(beside.next().has_value());

    // One that only listens takes what is written and tells nobody. Set back, it sends again.
    for (const bool listening : {true, false}) {
        down("ctl0");
        EXPECT_EQ(receive(one), -114);
        EXPECT_EQ(one.getCommands().runIsListenOnly(listening), 0);
        up("ctl0");
        can_frame raw{};
        EXPECT_EQ(beside.read(raw), -ENETDOWN);
        EXPECT_EQ(one.send(data, 8, listening ? 5 : 6), 0);
    }
    for (const RawSocket* each : {&far, &beside}) {
        const auto heard = each->next();
        ASSERT_TRUE(heard.has_value());
        EXPECT_EQ(heard->can_id, CAN_EFF_FLAG | 6);
    }
}

}  // namespace
