#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <thread>

#include "modules/daq/can/CANSocketDevice.h"
#include "modules/daq/can/CanSocketSubDevice.h"
#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/LossCount.h"
#include "tests/can/CanFixture.h"
#include "tests/can/kernel/CanInstrument.h"

using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::Test;

namespace {

class CanPortsTest : public testing::Test {
protected:
    ~CanPortsTest() override {
        device.reset();
        EXPECT_EQ(kestrixsim::openDescriptors(), 0);
    }

    void bringUp(const kestrixsim::Scenario& scenario, std::uint16_t mask = 0xFFFF) {
        device.reset();
        kestrixsim::reset(scenario);
        device = CanInstrument::broughtUp(mask);
    }
    void start() {
        device->initializeAcquisition(true);
        for (const auto& port : can().getPorts()) {
            *seenOf(port) = 0;
        }
        device->startAcquisition(true);
        startedAt = instrument().seconds();
    }
    // With a master clock that runs by the instrument's time from here on.
    void startWithClock(double drift = 0.0) {
        start();
        device->clock->time = [this, drift] { return masterAt(instrument().seconds(), drift); };
    }
    double masterAt(double seconds, double drift) const { return (seconds - startedAt) * (1.0 + drift) + uptime; }

    CanSocketSubDevice& can() const { return *device->can; }
    const CanPortInfo& port(int number) const { return can().getPorts().at(static_cast<size_t>(number)); }
    CANChannel& input(int number) const { return *port(number).inputChannel; }
    CANChannel& output(int number) const { return *port(number).outputChannel; }

    static void transmit(int port, const CanFrame& frame, double in = 0.0) {
        instrument().can().transmit(port, frame, instrument().seconds() + in);
    }
    static void wait(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }
    std::string failureOfCycle() const {
        try {
            device->acquireData();
        } catch (const std::exception& exception) {
            return exception.what();
        }
        return "";
    }
    void cycles(double seconds) const {
        for (const double end = instrument().seconds() + seconds; instrument().seconds() < end;) {
            wait(0.005);
            ASSERT_EQ(failureOfCycle(), "");
        }
    }
    void send(int port, std::uint32_t id, std::uint8_t length = 8) const {
        CanMessage message;
        message.id = id;
        message.dataLength = length;
        output(port).addSample(message, 0.0);
    }
    static Texts countsOf(const CANChannel& channel) {
        Texts texts;
        for (const auto& count : channel.losses) {
            if (count->get() != 0) {
                texts.push_back(count->property() + std::string(" ") + std::to_string(count->get()));
            }
        }
        return texts;
    }
    // Identifiers of the frames that came since the last call.
    std::vector<std::uint32_t> takeIds(int number) {
        CANChannel& channel = input(number);
        std::vector<std::uint32_t> ids;
        for (std::uint64_t& seen = *seenOf(port(number)); seen < channel.samplesAcquired.get(); ++seen) {
            ids.push_back(CanInstrument::messageAt(channel, seen).id);
        }
        return ids;
    }
    std::uint64_t* seenOf(const CanPortInfo& port) { return &seen[static_cast<size_t>(&port - &can().getPorts()[0])]; }
    using Ids = std::vector<std::uint32_t>;

    std::shared_ptr<CanInstrument> device;
    double startedAt = 0.0;
    double uptime = 0.0;  // of the master clock at the start
    std::uint64_t seen[20] = {};
};

TEST_F(CanPortsTest, MasksAndInterfaces) {
    const auto portsOf = [this](std::uint16_t mask) {
        device = std::make_shared<CanInstrument>(mask);
        device->initialize();
        std::string names;
        for (const auto& port : can().getPorts()) {
            names += port.socket.getSocketInfo().interfaceName + (port.socket.getSocketFd() > 0 ? " " : "! ");
        }
        device->initializeHardware();
        EXPECT_EQ(can().channels.size(), 2 * can().getPorts().size());
        device.reset();
        return names;
    };
    const std::string all = "can0 can1 can2 can3 can4 can5 can6 can7 can8 can9 can10 can11 can12 can13 can14 can15 ";
    struct {
        int interfaces;
        std::uint16_t mask;
        std::string ports;
    } const rows[] = {
        {0, 0xFFFF, ""},
        {1, 0x8000, "can0 "},
        {1, 0x7FFF, ""},
        {1, 0xFFFF, "can0 "},
        {2, 0x4000, "can1 "},
        {2, 0xC000, "can0 can1 "},
        {2, 0x3FFF, ""},
        {16, 0xFFFF, all},
        {16, 0x0001, "can15 "},
        {20, 0xFFFF, all},
        {20, 0x0001, "can15 "},
        {20, 0x0000, ""},
        {16, 0x8002, "can0 can14 "},
    };
    for (const auto& row : rows) {
        kestrixsim::reset(withPorts(row.interfaces));
        EXPECT_EQ(portsOf(row.mask), row.ports) << row.interfaces << " " << std::hex << row.mask;
    }
    // A virtual interface counts and isn't meant; the port that is taken for it stays, and stays silent.
    kestrixsim::reset(withInterfaces({"can0", "vcan0"}));
    testing::internal::CaptureStdout();
    EXPECT_EQ(portsOf(0xFFFF), "can0 can1! ");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n\n\n\n\n\n\n\ncanDemo.start(): failed!\n\n\n\n\n");
}

TEST_F(CanPortsTest, ChannelsAndFolders) {
    bringUp(withPorts(4), 0xA000);
    EXPECT_EQ(can().getDisplayName(), "CAN interfaces");
    Texts names;
    for (const auto& channel : can().channels) {
        names.push_back(channel->name + (channel->isControl ? " *" : ""));
    }
    EXPECT_EQ(names, (Texts{"CAN Port 1 Input", "CAN Port 1 Output *", "CAN Port 2 Input", "CAN Port 2 Output *"}));
    EXPECT_TRUE(can().channelView->channels.empty());
    Texts folders;
    for (const auto& element : *can().channelView) {
        const auto folder = std::dynamic_pointer_cast<ChannelFolder>(element);
        folders.push_back(folder->getDisplayName());
        EXPECT_EQ(folder->channels.size(), 2u);
    }
    EXPECT_EQ(folders, (Texts{"CAN Port 1", "CAN Port 2"}));
    EXPECT_EQ(can().getCANChannel(3).get(), &output(1));
    EXPECT_THROW(can().getCANChannel(4), std::out_of_range);

    CANSocketDevice alone;
    EXPECT_EQ(alone.manufacturer + " " + alone.getDisplayName(), "Harvane CAN");
    EXPECT_EQ(alone.getDate().toString(), "1.1.2000 0:0:0");
    EXPECT_EQ(alone.getSynchronizationOptions(),
              (SynchronizationOptions{{SynchronizationMode::SoftSync, {}}, {SynchronizationMode::Standalone, {}}}));
    device.reset();
    const auto whole = std::make_shared<CANSocketDevice>();
    whole->initialize();
    whole->initializeHardware();
    EXPECT_EQ(whole->canDevice->channels.size(), 8u);
    whole->startAcquisition(true);
    EXPECT_EQ(whole->getDate().getYear(), DaqDateTime::getLocalTime().getYear());
}

TEST_F(CanPortsTest, AStartConfiguresThePorts) {
    bringUp(withPorts(2));
    input(0).baudRate = 1000000;
    input(1).writeEnable = 0;
    const auto before = static_cast<std::ptrdiff_t>(instrument().commandsRun().size());
    start();
    const auto lines = instrument().commandsRun();
    EXPECT_EQ(Texts(lines.begin() + before, lines.end()),
              (Texts{"ip link set down can0", "ip link set can0 type can bitrate 1000000",
                     "ip link set can0 type can listen-only off", "ip link set up can0", "ip link set down can1",
                     "ip link set can1 type can bitrate 500000", "ip link set can1 type can listen-only on",
                     "ip link set up can1"}));
}

// Frames on a bus, and their times against the end of each frame on the wire, with a clock that drifts and cycles that
// don't come regularly. `uptime`: for so many seconds the clocks have been running.
TEST_F(CanPortsTest, TimesAreThoseOfTheWire) {
    for (const double drift : {0.0, 400e-6, -400e-6}) {
        for (const double running : {0.0, 1e6}) {
            SCOPED_TRACE(std::to_string(drift) + " " + std::to_string(running));
            auto scenario = withPorts(1);
            scenario.realtimeAtStart = 1795000000.0;
            bringUp(scenario);
            uptime = 0.0;
            startWithClock(drift);
            const int jitterMs[] = {1, 17, 4, 33, 9, 2, 60, 5};
            const auto run = [&](double seconds) {
                int i = 0;
                for (const double end = instrument().seconds() + seconds; instrument().seconds() < end; ++i) {
                    wait(jitterMs[i % 8] * 1e-3);
                    ASSERT_EQ(failureOfCycle(), "");
                }
            };
            if (running > 0.0) {
                // The system clock stands where it is: the run's own time goes on from there.
                run(0.05);
                uptime = running;
            }
            run(0.4);
            const std::uint64_t before = input(0).samplesAcquired.get();
            const CanFrame frame = frameOf(0x55, {1, 2, 3});
            std::vector<double> ends;
            for (int i = 0; i < 100; ++i) {
                const double at = instrument().seconds() + 0.01 + i * 0.0061;
                instrument().can().transmit(0, frame, at);
                ends.push_back(masterAt(at + frame.bits() / 500000.0, drift));
            }
            run(0.7);
            ASSERT_EQ(input(0).samplesAcquired.get() - before, 100u);
            double squares = 0.0;
            for (size_t i = 0; i < ends.size(); ++i) {
                const double error = input(0).getTimeAtPos(before + i) - ends[i];
                squares += error * error;
            }
            EXPECT_LT(std::sqrt(squares / 100.0), 100e-6);
            EXPECT_EQ(can().getPorts()[0].inputCounts.size(), 9u);
        }
    }
}

// The system clock is set while frames come every 2 ms. Times before and behind it are right; what waited is dropped
// and counted.
TEST_F(CanPortsTest, StepsOfTheSystemClock) {
    for (const double stepMicroseconds : {2000.0, -2000.0, 3.6e9, -3.6e9, 50000.0, -50000.0}) {
        SCOPED_TRACE(stepMicroseconds);
        auto scenario = withPorts(1);
        scenario.realtimeAtStart = 1795000000.0;
        bringUp(scenario);
        startWithClock();
        cycles(0.15);
        constexpr int count = 200;
        std::vector<double> ends;
        for (int i = 0; i < count; ++i) {
            const double at = instrument().seconds() + 0.002 + i * 0.002;
            const CanFrame frame = frameOf(static_cast<uint32_t>(i));
            instrument().can().transmit(0, frame, at);
            ends.push_back(masterAt(at + frame.bits() / 500000.0, 0.0));
        }
        cycles(0.1);
        wait(0.006);  // some wait already, with the old stamps
        instrument().stepRealtime(stepMicroseconds);
        cycles(0.4);
        const auto dropped = port(0).atClockSteps->get();
        EXPECT_EQ(countsOf(input(0)),
                  (dropped > 0 ? Texts{"FramesAtClockSteps " + std::to_string(dropped), "ClockSteps 1"}
                               : Texts{"ClockSteps 1"}));
        EXPECT_LE(dropped, 15);  // what waited for a cycle
        ASSERT_EQ(input(0).samplesAcquired.get() + static_cast<std::uint64_t>(dropped),
                  static_cast<std::uint64_t>(count));
        for (std::uint64_t i = 0; i < input(0).samplesAcquired.get(); ++i) {
            ASSERT_NEAR(input(0).getTimeAtPos(i), ends[CanInstrument::messageAt(input(0), i).id], 500e-6) << i;
        }
    }
}

// Where the clocks can't be read at one moment, times are as good as the readings, and nothing passes for a step.
TEST_F(CanPortsTest, ClocksThatAreReadSlowlyRelateAllTheSame) {
    auto scenario = withPorts(1);
    scenario.realtimeAtStart = 1795000000.0;
    bringUp(scenario);
    startWithClock();
    device->clock->time = [this, quick = device->clock->time, count = 0]() mutable {
        const double time = quick();
        wait(++count % 3 == 0 ? 0.004 : 0.002);
        return time;
    };
    cycles(0.3);
    const double at = instrument().seconds() + 0.02;
    transmit(0, frameOf(7), 0.02);
    cycles(0.3);
    EXPECT_EQ(countsOf(input(0)), Texts());
    ASSERT_EQ(input(0).samplesAcquired.get(), 1u);
    EXPECT_NEAR(input(0).getTimeAtPos(0), masterAt(at, 0.0), 0.01);
}

TEST_F(CanPortsTest, WhatComesBeforeItsTimeIsCounted) {
    bringUp(withPorts(1));
    transmit(0, frameOf(1));  // heard by nobody: the port is at another bit rate
    input(0).baudRate = 500000;
    start();
    wait(0.002);
    device->finalizeAcquisition(true);
    transmit(0, frameOf(2));
    transmit(0, frameOf(3));
    wait(0.002);
    start();
    EXPECT_EQ(countsOf(input(0)), Texts{"FramesBeforeStart 2"});
    // No time yet.
    transmit(0, frameOf(4));
    wait(0.002);
    EXPECT_EQ(failureOfCycle(), "");
    EXPECT_EQ(countsOf(input(0)), (Texts{"FramesWithoutTime 1", "FramesBeforeStart 2"}));
    // The master clock begins later than the frame was stamped.
    transmit(0, frameOf(5));
    wait(0.05);
    device->clock->time = [began = instrument().seconds() - 0.01] { return instrument().seconds() - began; };
    EXPECT_EQ(failureOfCycle(), "");
    EXPECT_EQ(countsOf(input(0)), (Texts{"FramesWithoutTime 1", "FramesBeforeStart 2", "FramesBeforeZero 1"}));
    EXPECT_EQ(takeIds(0), Ids());
    transmit(0, frameOf(6));
    wait(0.002);
    EXPECT_EQ(failureOfCycle(), "");
    EXPECT_EQ(takeIds(0), Ids{6});
    // A clock that fails is told once the ports have been emptied.
    device->clock->fails = true;
    transmit(0, frameOf(7));
    wait(0.002);
    EXPECT_EQ(failureOfCycle(), "no clock");
    EXPECT_EQ(takeIds(0), Ids{7});
    device->clock->fails = false;
    // The next run counts from 0. Its system clock is set back before the master clock has given a time.
    device->finalizeAcquisition(true);
    device->clock->time = [] { return -1.0; };
    start();
    EXPECT_EQ(countsOf(input(0)), Texts());
    instrument().stepRealtime(-5e6);
    transmit(0, frameOf(8));
    wait(0.002);
    EXPECT_EQ(failureOfCycle(), "");
    EXPECT_EQ(countsOf(input(0)), Texts{"FramesBeforeStart 1"});
    device->clock->time = [this] { return masterAt(instrument().seconds(), 0.0); };
    EXPECT_EQ(failureOfCycle(), "");
    transmit(0, frameOf(9));
    wait(0.002);
    EXPECT_EQ(failureOfCycle(), "");
    EXPECT_EQ(countsOf(input(0)), (Texts{"FramesBeforeStart 1", "ClockSteps 1"}));
    EXPECT_EQ(takeIds(0), Ids{9});
    EXPECT_NEAR(input(0).getTimeAtPos(0), masterAt(instrument().seconds(), 0.0), 0.05);
}

TEST_F(CanPortsTest, OnePortsTroubleIsNoOthers) {
    bringUp(withPorts(4));
    input(0).used = false;
    input(1).asyncRate = 8;  // a ring of 16
    startWithClock();
    cycles(0.15);
    const auto burst = [](int port, int count) {
        for (int i = 0; i < count; ++i) {
            transmit(port, frameOf(static_cast<uint32_t>(i)));
        }
    };
    burst(0, 3);
    burst(1, 20);
    burst(3, 3);
    transmit(2, frameOf(1));
    instrument().can().transmit(2, frameOf(CanFrame::error | 4, {1, 2, 3, 4, 5, 6, 7, 8}),
                                instrument().seconds() + 0.001);
    transmit(2, frameOf(2), 0.002);
    wait(0.02);
    EXPECT_EQ(
        failureOfCycle(),
        "Not active channel: frames on can0 while its input channel is not in use; a cycle brought more frames on "
        "can1 than its input channel holds");
    EXPECT_EQ(countsOf(input(0)), Texts{"FramesUnused 3"});
    EXPECT_EQ(countsOf(input(1)), Texts{"FramesOverflowed 4"});
    EXPECT_EQ(input(1).samplesAcquired.get(), 16u);
    EXPECT_EQ(countsOf(input(2)), Texts{"ErrorFrames 1"});
    EXPECT_EQ(takeIds(2), Ids{1});  // the rest waits for the next cycle
    EXPECT_EQ(takeIds(3), (Ids{0, 1, 2}));
    EXPECT_EQ(failureOfCycle(), "");
    EXPECT_EQ(takeIds(2), Ids{2});
    burst(1, 17);
    instrument().inject({.kind = FaultKind::CanRead, .target = 3});
    burst(3, 1);
    wait(0.01);
    EXPECT_EQ(failureOfCycle(), "Data lost: a cycle brought more frames on can1 than its input channel holds");
    EXPECT_EQ(countsOf(input(3)), Texts{"FailedReads 1"});
}

TEST_F(CanPortsTest, WhatFindsNoRoomIsCountedAndTheRestSentInOrder) {
    bringUp(withPorts(1));
    startWithClock();
    // 10,000 in one cycle: those that found room are sent, in order, the others counted.
    for (std::uint32_t i = 0; i < 10000; ++i) {
        send(0, i);
    }
    device->sendData();
    const auto full = port(0).queueFull->get();
    EXPECT_EQ(countsOf(output(0)), Texts{"NotSentQueueFull " + std::to_string(full)});
    EXPECT_GT(full, 1000);
    wait(0.1);
    EXPECT_EQ(failureOfCycle(), "");
    const auto all = instrument().can().sent(0);
    EXPECT_EQ(static_cast<std::int64_t>(all.size()), 10000 - full);
    for (size_t i = 1; i < all.size(); ++i) {
        EXPECT_GT(all[i].frame.id, all[i - 1].frame.id);
    }
    // Of an output that goes on after that nothing is held back.
    send(0, 77);
    device->sendData();
    wait(0.01);
    EXPECT_EQ(instrument().can().sent(0).back().frame.id, CanFrame::extended | 77);
}

TEST_F(CanPortsTest, WhatCantBeSentIsCounted) {
    auto scenario = withPorts(3);
    scenario.can.interfaces->at(1).starts = false;
    scenario.can.interfaces->at(2).present = false;
    bringUp(scenario, 0xA000);  // can0, and can2 that isn't there
    EXPECT_EQ(can().getPorts().size(), 1u);
    bringUp(withInterfaces({"can0", "vcan0"}));
    startWithClock();
    send(1, 1);
    send(0, 2, 9);
    device->sendData();
    EXPECT_EQ(countsOf(output(1)), Texts{"NotSentClosed 1"});
    EXPECT_EQ(countsOf(output(0)), Texts{"NotSentInvalid 1"});

    input(0).writeEnable = 0;
    device->finalizeAcquisition(true);
    startWithClock();
    send(0, 4);
    device->sendData();
    EXPECT_EQ(countsOf(output(0)), Texts{"NotSentListenOnly 1"});
    EXPECT_EQ(countsOf(output(1)), Texts());
    wait(0.01);
    EXPECT_TRUE(instrument().can().sent(0).empty());
}

}  // namespace
