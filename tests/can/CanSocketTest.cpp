#include "libraries/protocols/can/CanSocket.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "tests/can/CanFixture.h"

using namespace Harvane::Test;
using namespace Harvane::ZornLib::Protocols::CAN;

namespace {

class CanSocketTest : public testing::Test {
protected:
    CanSocketTest() { kestrixsim::reset(withPorts(2)); }
    ~CanSocketTest() override { EXPECT_EQ(kestrixsim::openDescriptors(), 0); }

    // At the bit rate of the virtual bus.
    static CanSocket opened(const std::string& name = "can0") {
        CanSocket socket;
        auto info = socket.getSocketInfo();
        info.interfaceName = name;
        info.bitrate = 500000;
        socket.setSocketInfo(info);
        EXPECT_EQ(socket.start(), 0) << name;
        return socket;
    }
    static void inject(FaultKind kind, int64_t times = 1) { instrument().inject({.kind = kind, .times = times}); }
    static void transmit(const CanFrame& frame) { instrument().can().transmit(0, frame, instrument().seconds()); }
    // Once something has come; a frame takes up to 0.3 ms on the wire.
    static std::int32_t receive(CanSocket& socket, CanSockFrameInfo& frame) {
        std::int32_t result = CanResult::nothingToRead;
        for (int i = 0; i < 1000 && result == CanResult::nothingToRead; ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            result = socket.receive(frame);
        }
        return result;
    }
    static std::int32_t receive(CanSocket& socket) {
        CanSockFrameInfo frame;
        return receive(socket, frame);
    }
};

TEST_F(CanSocketTest, EachCodeHasItsCause) {
    const std::uint8_t data[9] = {};
    const auto with = [](auto change) {
        CanSocket socket;
        auto info = socket.getSocketInfo();
        change(info);
        socket.setSocketInfo(info);
        const auto result = socket.validParameters();
        EXPECT_TRUE(result == 0 || socket.initialize() == result);
        return result;
    };
    const auto startWith = [](FaultKind kind) {
        inject(kind);
        CanSocket socket;
        const auto result = socket.start();
        EXPECT_EQ(socket.getSocketFd(), -105);
        EXPECT_EQ(kestrixsim::openDescriptors(), 0);
        instrument().clearFaults();
        return result;
    };
    const auto openedWith = [](FaultKind kind, const std::function<std::int32_t(CanSocket&)>& call) {
        CanSocket socket = opened();
        transmit(frameOf(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        inject(kind);
        const auto result = call(socket);
        instrument().clearFaults();
        return result;
    };
    using Info = CanSockInfo;
    struct {
        const char* what;
        std::int32_t code;
        std::function<std::int32_t()> call;
    } const rows[] = {
        {"name too long", -102, [&] { return with([](Info& i) { i.interfaceName = std::string(32, 'c'); }); }},
        {"longest name", 0, [&] { return with([](Info& i) { i.interfaceName = std::string(31, 'c'); }); }},
        {"too slow", -102, [&] { return with([](Info& i) { i.bitrate = 9999; }); }},
        {"slowest", 0, [&] { return with([](Info& i) { i.bitrate = 10000; }); }},
        {"fastest", 0, [&] { return with([](Info& i) { i.bitrate = 1000000; }); }},
        {"too fast", -102, [&] { return with([](Info& i) { i.bitrate = 1000001; }); }},
        {"greatest identifier", 0, [&] { return with([](Info& i) { i.canId = 0x1FFFFFFF; }); }},
        {"identifier too great", -102, [&] { return with([](Info& i) { i.canId = 0x20000000; }); }},
        {"greatest standard", 0, [&] { return with([](Info& i) { i.canId = 2047, i.extendedFormat = false; }); }},
        {"standard too great", -102, [&] { return with([](Info& i) { i.canId = 2048, i.extendedFormat = false; }); }},
        {"longest queue", 0, [&] { return with([](Info& i) { i.queueLength = 100000; }); }},
        {"queue too long", -102, [&] { return with([](Info& i) { i.queueLength = 100001; }); }},
        {"nine bytes on a closed socket", -102, [&] { return CanSocket().send(data, 9, 1); }},
        {"stop before initialize", -104, [] { return CanSocket().stop(); }},
        {"stop after it", 0,
         [] {
             CanSocket socket;
             socket.initialize();
             return socket.stop();
         }},
        {"stop twice", 0,
         [] {
             CanSocket socket = opened();
             socket.stop();
             return socket.stop();
         }},
        {"start that can't configure", -104, [&] { return startWith(FaultKind::CanCommandFails); }},
        {"initialize of an open one", -105, [] { return opened().initialize(); }},
        {"descriptor of a closed one", -105, [] { return CanSocket().getSocketFd(); }},
        {"send on a closed one", -106, [&] { return CanSocket().send(data, 8, 1); }},
        {"receive on a closed one", -106,
         [] {
             CanSocket socket = opened();
             socket.stop();
             return receive(socket);
         }},
        {"socket", -109, [&] { return startWith(FaultKind::CanSocket); }},
        {"if_nametoindex", -110, [&] { return startWith(FaultKind::CanIndex); }},
        {"bind", -112, [&] { return startWith(FaultKind::CanBind); }},
        {"fcntl", -117, [&] { return startWith(FaultKind::CanFlags); }},
        {"setsockopt", -119, [&] { return startWith(FaultKind::CanOption); }},
        {"a tool that fails doesn't count", 0,
         [] {
             inject(FaultKind::CanCommandStatus);
             return CanSocket().start();
         }},
        {"write", -113, [&] { return openedWith(FaultKind::CanWrite, [&](auto& s) { return s.send(data, 8, 1); }); }},
        {"short write", -113,
         [&] { return openedWith(FaultKind::CanShortWrite, [&](auto& s) { return s.send(data, 8, 1); }); }},
        {"a full socket", -118,
         [&] {
             CanSocket socket = opened();
             EXPECT_EQ(socket.setQueueLength(100000), 0);
             std::int32_t result = 0;
             for (int i = 0; i < 100000 && result == 0; ++i) {
                 result = socket.send(data, 8, 1);
             }
             return result;
         }},
        {"select", -114, [&] { return openedWith(FaultKind::CanWait, [](auto& s) { return receive(s); }); }},
        {"read", -114, [&] { return openedWith(FaultKind::CanRead, [](auto& s) { return receive(s); }); }},
        {"short read", -114, [&] { return openedWith(FaultKind::CanShortRead, [](auto& s) { return receive(s); }); }},
        // A frame whose time the kernel can't tell has come just now.
        {"no stamp", 0,
         [] {
             CanSocket socket = opened();
             inject(FaultKind::CanStamp);
             transmit(frameOf(1));
             CanSockFrameInfo frame;
             const auto result = receive(socket, frame);
             EXPECT_NEAR(static_cast<double>(frame.timestamp) * 1e-6, static_cast<double>(::time(nullptr)), 3.0);
             return result;
         }},
        {"nothing there", -116,
         [] {
             CanSocket socket = opened();
             CanSockFrameInfo frame;
             frame.canId = 7;
             const auto result = socket.receive(frame);
             EXPECT_EQ(frame.canId, 0u);  // of an earlier frame nothing stays
             return result;
         }},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.call(), row.code) << row.what;
        EXPECT_EQ(kestrixsim::openDescriptors(), 0) << row.what;
    }
}

TEST_F(CanSocketTest, CommandLines) {
    const size_t before = instrument().commandsRun().size();
    const auto fresh = [seen = before]() mutable {
        const auto all = instrument().commandsRun();
        Texts lines(all.begin() + static_cast<std::ptrdiff_t>(seen), all.end());
        seen = all.size();
        return lines;
    };
    auto take = fresh;
    const Texts configured{"ip link set down can1", "ip link set can1 type can bitrate 500000",
                           "ip link set can1 type can restart-ms 100", "ip link set can1 txqueuelen 100",
                           "ip link set up can1"};
    CanSocket socket = opened("can1");
    EXPECT_EQ(take(), configured);
    socket.stop();
    EXPECT_EQ(take(), Texts());
    EXPECT_EQ(socket.setBitrate(125000), 0);
    Texts twice = configured;
    twice[1] = "ip link set can1 type can bitrate 125000";
    const Texts once = twice;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(take(), twice);
    EXPECT_EQ(socket.setQueueLength(5), 0);
    EXPECT_EQ(take().back(), "ip link set up can1");
    EXPECT_EQ(instrument().can().state(1).txQueueLength, 5u);
    EXPECT_GE(socket.restartCommand(), 0);  // which the tool refuses while the interface is up
    const Commands& commands = socket.getCommands();
    commands.runIsListenOnly(true);
    commands.runIsListenOnly(false);
    Commands other("can0");
    other.runLinkSetUp();
    other.setDeviceDesignation(1);
    other.runLinkSetDown();
    EXPECT_EQ(take(),
              (Texts{"ip link set can1 type can restart-ms 100", "ip link set can1 type can listen-only on",
                     "ip link set can1 type can listen-only off", "ip link set up can0", "ip link set down can1"}));
    // Down again after the first command that can't be run, and no further.
    inject(FaultKind::CanCommandFails);
    CanSocket failing;
    EXPECT_LT(failing.initialize(), 0);
    EXPECT_EQ(take().size(), 0u);
    EXPECT_EQ(CanSocket().setBitrate(125000), -104);
    EXPECT_EQ(socket.setBitrate(1), -102);
    EXPECT_EQ(socket.getSocketFd(), -105);
}

TEST_F(CanSocketTest, CountsTheInterfaces) {
    for (const int count : {0, 1, 2, 16, 20}) {
        kestrixsim::reset(withPorts(count));
        EXPECT_EQ(Commands::getNoOfCANPorts(), count);
    }
    kestrixsim::reset(withInterfaces({"can0", "vcan0"}));
    EXPECT_EQ(Commands::getNoOfCANPorts(), 2);
    inject(FaultKind::CanCommandSilent);
    EXPECT_EQ(Commands::getNoOfCANPorts(), -1);
    inject(FaultKind::CanCommandFails);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Commands::getNoOfCANPorts(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "popen error (get number of CAN ports)\n");
}

// Of each descriptor there is one owner, whatever way the sockets go.
TEST_F(CanSocketTest, OwnsItsDescriptor) {
    const auto lives = [](const CanSocket& socket) {
        return ::fcntl(socket.getSocketFd(), F_GETFD) == FD_CLOEXEC && ::fcntl(socket.getSocketFd(), F_GETFL) >= 0;
    };
    {
        std::vector<CanSocket> ports;
        for (int i = 0; i < 9; ++i) {
            ports.push_back(opened(i % 2 == 0 ? "can0" : "can1"));
            EXPECT_EQ(kestrixsim::openDescriptors(), i + 1);
            for (const auto& port : ports) {
                EXPECT_TRUE(lives(port));
            }
        }
        ports.erase(ports.begin() + 3);
        EXPECT_EQ(kestrixsim::openDescriptors(), 8);
        CanSocket taken = std::move(ports[0]);
        const auto left = ports[0].getSocketInfo();  // NOLINT(bugprone-use-after-move): that is the question
        EXPECT_EQ(left.socketFd, 0);
        EXPECT_FALSE(left.initialized);
        EXPECT_EQ(ports[0].receive(*std::make_unique<CanSockFrameInfo>()), -106);
        taken = std::move(ports[1]);  // closes what it had
        EXPECT_EQ(kestrixsim::openDescriptors(), 7);
        EXPECT_TRUE(lives(taken));
        CanSocket& itself = taken;
        taken = std::move(itself);
        EXPECT_TRUE(lives(taken));
        // Settings that are taken over from another one don't bring its descriptor along.
        ports[0].setSocketInfo(taken.getSocketInfo());
        EXPECT_EQ(ports[0].getSocketFd(), -105);
        ports[0].setDefaults();
        taken.setDefaults();
        EXPECT_EQ(kestrixsim::openDescriptors(), 6);
    }
    EXPECT_EQ(kestrixsim::openDescriptors(), 0);
}

}  // namespace
