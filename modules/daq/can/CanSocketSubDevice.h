#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "libraries/protocols/can/CanSocket.h"
#include "modules/daq/objectmodel/CANDevice.h"
#include "modules/daq/synchronization/SoftSyncAlgorithm.h"

namespace Harvane::RT::Modules::Daq {

class DaqClock;
class LossCount;
struct CanMessage;

// A port, and what is counted of its frames in a run.
struct CanPortInfo {
    ZornLib::Protocols::CAN::CanSocket socket;
    std::uint64_t sentCount = 0;  // samples of the output channel that have been taken from it
    std::shared_ptr<CANChannel> inputChannel;
    std::shared_ptr<CANChannel> outputChannel;

    using Count = std::shared_ptr<LossCount>;
    Count withoutTime;   // the clocks have not been related yet
    Count beforeStart;   // stamped before the run
    Count beforeZero;    // before the master clock began
    Count atClockSteps;  // waiting when the clocks had parted
    Count unused;        // the input channel is not in use
    Count overflowed;    // more in one cycle than the channel holds
    Count errorFrames;   // reports of the driver
    Count kernelDrops;   // no room in the socket
    Count failedReads;
    Count queueFull;  // not sent: no room in the socket or the interface
    Count closed;     // not sent: the socket isn't open
    Count failed;     // not sent: the system refused
    Count invalid;    // not sent: more than 8 bytes
    Count silent;     // not sent: the port only listens
    std::vector<Count> inputCounts;
    std::vector<Count> outputCounts;

    std::string whyClosed;  // result and cause of an opening that failed
    bool listenOnly = false;
    bool discard = false;               // what waits in the socket was stamped by a clock that has stepped since
    std::int64_t lastKernelDrops = -1;  // -1: the kernel doesn't tell
};

// The CAN ports of the instrument. Received frames get the time at which the kernel has stamped them, on the master
// clock; frames of the output channels are sent. Sockets are open from the beginning; a start brings the interfaces
// down and up with the settings of the input channels, which takes some ten milliseconds a port.
//
// Stamps are the system clock's. A step of it, or of the master clock, is seen before the next frame is taken: the
// relation of the two begins anew, and the frames that waited meanwhile are dropped, since nobody knows on which side
// of the step they were stamped. What is dropped is counted (LossCount), each cause for itself.
class CanSocketSubDevice : public CANDevice {
public:
    using SystemTime = std::chrono::system_clock::time_point;

    // Bit 15 - n of the mask stands for the interface "can<n>". A port that can't be opened stays, and stays silent.
    explicit CanSocketSubDevice(std::uint16_t mask);
    ~CanSocketSubDevice() override;

    void initializeHardware() override;
    void initializeAcquisition(bool recursive) override;
    void startAcquisition(bool recursive) override;
    // Takes what waits from every port, and then throws for what the channels had no place for, or for the clock.
    void acquireData() override;
    void sendData() override;

    // Seconds since the start, in whole microseconds.
    double calculateCurrentDeviceTime(SystemTime timePoint) const;

    const std::vector<CanPortInfo>& getPorts() const { return ports; }

private:
    enum class Trouble { None, Unused, Overflow };

    void configurePorts();
    void emptySockets();
    void askClocks();
    void synchronizeClocks();
    std::chrono::nanoseconds readClocks(double& master, SystemTime& now) const;
    bool haveParted(double master, double slave, double uncertain) const;
    Trouble receiveFrames(CanPortInfo& port);
    Trouble take(CanPortInfo& port, const ZornLib::Protocols::CAN::CanSockFrameInfo& frame) const;
    void countKernelDrops();
    static void send(CanPortInfo& port, const CanMessage& message);

    std::vector<CanPortInfo> ports;
    Utils::Synchronization::SoftSyncAlgorithm softSync;
    Utils::Synchronization::SoftSyncAlgorithm::Line clockLine_;  // since the clocks were asked last
    bool clocksAsked_ = false;                                   // in this cycle
    std::exception_ptr clockFailure_;                            // then
    SystemTime startTime{};                                      // 0 of the slave time
    SystemTime lastSyncTime{};                                   // of the last pair of times
    std::shared_ptr<DaqClock> masterClock_;
    std::shared_ptr<LossCount> clockSteps_;
    double lastMaster_ = 0.0;  // the last pair, s; 0 before the first one
    double lastSlave_ = 0.0;
    double lastWidth_ = 0.0;             // what the last pair's clocks were read apart, beyond one moment, s
    std::chrono::nanoseconds moment_{};  // the longest that counts as one now
    std::chrono::steady_clock::time_point lastDropCheck_{};
};

}  // namespace Harvane::RT::Modules::Daq
