#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>

#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/LossCount.h"
#include "tests/can/kernel/CanInstrument.h"
#include "tests/can/kernel/Interfaces.h"
#include "tests/can/kernel/RawSocket.h"

using namespace Harvane::RT::Modules::Daq;
using namespace Harvane::Test;

namespace {

// The CAN ports of an instrument on can0 and can1. A third one is taken for can2, because vcan0 counts, and stays
// closed.
class CanKernelPorts : public testing::Test {
protected:
    CanKernelPorts() {
        makeInterfaces();
        device = CanInstrument::broughtUp();
    }
    // The master clock begins here and runs by the system clock.
    void start() {
        device->initializeAcquisition(true);
        device->startAcquisition(true);
        startedAtUs = realtimeUs();
        device->clock->time = [this] { return static_cast<double>(realtimeUs() - startedAtUs) * 1e-6; };
    }
    const CanPortInfo& port(size_t number) const { return device->can->getPorts().at(number); }
    CANChannel& input(size_t number) const { return *port(number).inputChannel; }
    void cycle() const {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        device->acquireData();
        device->sendData();
    }
    // Cycles until so many samples are there, or some seconds have gone.
    void cyclesUntil(std::uint64_t samples) const {
        for (int i = 0; i < 500 && input(0).samplesAcquired.get() < samples; ++i) {
            cycle();
        }
        EXPECT_EQ(input(0).samplesAcquired.get(), samples);
    }
    CanMessage messageAt(std::uint64_t number) const { return CanInstrument::messageAt(input(0), number); }

    std::shared_ptr<CanInstrument> device;
    std::int64_t startedAtUs = 0;
};

// The time of each frame on the master clock lies between its sender's clock before and behind the call that wrote it.
TEST_F(CanKernelPorts, FramesWithTheirTimes) {
    ASSERT_EQ(device->can->getPorts().size(), 3u);
    start();
    const RawSocket peer("can0");
    cycle();
    cycle();
    constexpr std::uint64_t count = 200;
    std::vector<double> middle;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::int64_t before = realtimeUs();
        ASSERT_EQ(peer.write(rawFrame(static_cast<canid_t>(i), {static_cast<std::uint8_t>(i)})), 16);
        const std::int64_t after = realtimeUs();
        middle.push_back(static_cast<double>(before + after - 2 * startedAtUs) * 0.5e-6);
        if (i % 7 == 0) {
            cycle();
        }
    }
    cyclesUntil(count);
    double squares = 0.0;
    for (std::uint64_t i = 0; i < count; ++i) {
        ASSERT_EQ(messageAt(i).id, i);
        ASSERT_EQ(messageAt(i).dataLength, 1);
        ASSERT_EQ(messageAt(i).data[0], i);
        squares += std::pow(input(0).getTimeAtPos(i) - middle[i], 2);
    }
    const double rms = std::sqrt(squares / count);
    std::printf("measured: times of %d frames differ by %.0f us RMS from their sender's\n", static_cast<int>(count),
                rms * 1e6);
    EXPECT_LT(rms, 1e-3);
}

TEST_F(CanKernelPorts, MessagesGoOutInOrderAndNoneTwice) {
    const RawSocket peer("can0");
    start();
    can_frame raw{};
    EXPECT_EQ(peer.read(raw), -ENETDOWN);  // the start takes the interfaces down and up
    constexpr std::uint32_t count = 250;
    CanMessage message;
    for (std::uint32_t i = 0; i < count; ++i) {
        message.id = i;
        message.dataLength = static_cast<std::uint8_t>(i % 9);
        port(0).outputChannel->addSample(message, 0.0);
    }
    message.dataLength = 9;
    port(0).outputChannel->addSample(message, 0.0);
    port(2).outputChannel->addSample(message, 0.0);
    message.dataLength = 0;
    port(2).outputChannel->addSample(message, 0.0);
    cycle();
    cycle();
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto frame = peer.next();
        ASSERT_TRUE(frame.has_value()) << i;
        ASSERT_EQ(frame->can_id, CAN_EFF_FLAG | i);
        ASSERT_EQ(frame->can_dlc, i % 9);
    }
    EXPECT_FALSE(peer.readable(50));
    EXPECT_EQ(port(0).invalid->get(), 1);
    EXPECT_EQ(port(2).invalid->get(), 1);
    EXPECT_EQ(port(2).closed->get(), 1);
    EXPECT_EQ(input(0).samplesAcquired.get(), 0u);  // none of its own comes back
}

// What a kernel does to a run: drops what finds no room, reports an interface that goes down. The other frames arrive.
TEST_F(CanKernelPorts, LossesAreCounted) {
    RawSocket peer("can0");
    const auto flood = [&] {
        for (canid_t i = 0; i < 700; ++i) {
            ASSERT_EQ(peer.write(rawFrame(i)), 16);
        }
    };
    flood();  // of no run
    start();
    EXPECT_EQ(peer.write(rawFrame(0)), -ENETDOWN);  // as the interface was in between
    cycle();
    cycle();
    EXPECT_EQ(port(0).kernelDrops->get(), 0);
    flood();
    cyclesUntil(500);
    for (int i = 0; i < 500 && port(0).kernelDrops->get() < 200; ++i) {
        cycle();
    }
    EXPECT_EQ(port(0).kernelDrops->get(), 200);
    EXPECT_EQ(messageAt(499).id, 499u);
    EXPECT_EQ(port(0).failedReads->get(), 0);
    EXPECT_EQ(port(0).atClockSteps->get(), 0);

    const Commands can0("can0");
    EXPECT_EQ(can0.runLinkSetDown(), 0);
    CanMessage message;
    message.id = 5;
    cycle();
    EXPECT_EQ(port(0).failedReads->get(), 1);
    port(0).outputChannel->addSample(message, 0.0);
    cycle();
    EXPECT_EQ(port(0).failed->get(), 1);
    EXPECT_EQ(can0.runLinkSetUp(), 0);
    EXPECT_EQ(peer.write(rawFrame(6)), -ENETDOWN);
    EXPECT_EQ(peer.write(rawFrame(7)), 16);
    cyclesUntil(501);
    EXPECT_EQ(messageAt(500).id, 7u);
    EXPECT_EQ(port(0).failedReads->get(), 1);
    EXPECT_EQ(port(1).failedReads->get(), 0);
}

}  // namespace
