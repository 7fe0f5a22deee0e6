#include "modules/daq/can/CanSocketSubDevice.h"

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>

#include "modules/daq/objectmodel/CANChannel.h"
#include "modules/daq/objectmodel/CanMessage.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/Log.h"
#include "modules/daq/objectmodel/LossCount.h"

namespace Harvane::RT::Modules::Daq {

namespace CanResult = ZornLib::Protocols::CAN::CanResult;
using ZornLib::Protocols::CAN::CanSockFrameInfo;

namespace {

constexpr int mostPorts = 16;  // bits of the mask
constexpr double noTime = -1.0;
constexpr auto pairDistance = std::chrono::nanoseconds(100000000);
// The clocks drift by far less between two pairs; a system clock that is slewed runs off by half of it in a second.
constexpr double mostApart = 0.001;
// Both clocks have been read at one moment when the reading took no longer; a shorter one is tried for. Where none is
// to be had, a longer one counts cycle by cycle: a time that is off by so much is better than none.
constexpr auto oneMoment = std::chrono::microseconds(200);
constexpr auto longestMoment = std::chrono::milliseconds(10);
constexpr auto goodMoment = std::chrono::microseconds(20);
// Twice what a channel holds: a source without end must not hold up the cycle.
constexpr int mostFramesInACycle = 20000;

struct InputCount {
    CanPortInfo::Count CanPortInfo::*count;
    LossCount::Words words;
};

constexpr const char* receivedAgain = "frames in this run; its frames are passed on again";

// At the beginning of a run there is nothing wrong with the first two.
constexpr InputCount inputCounts[] = {
    {&CanPortInfo::withoutTime, {"FramesWithoutTime", "has lost", nullptr, nullptr}},
    {&CanPortInfo::beforeStart, {"FramesBeforeStart", "has lost", nullptr, nullptr}},
    {&CanPortInfo::beforeZero,
     {"FramesBeforeZero", "has lost", "frames in this run: they were stamped before the master clock began",
      receivedAgain}},
    {&CanPortInfo::atClockSteps,
     {"FramesAtClockSteps", "has lost", "frames in this run: they waited when a clock stepped", receivedAgain}},
    {&CanPortInfo::unused, {"FramesUnused", "has lost", "frames in this run: it is not in use", receivedAgain}},
    {&CanPortInfo::overflowed,
     {"FramesOverflowed", "has lost", "frames in this run: a cycle brought more than it holds", receivedAgain}},
    {&CanPortInfo::errorFrames, {"ErrorFrames", "has got", "reports of errors on its bus in this run", nullptr}},
    {&CanPortInfo::kernelDrops,
     {"KernelDrops", "has lost", "frames in this run: the kernel had no room for them", receivedAgain}},
    {&CanPortInfo::failedReads, {"FailedReads", "has failed to read", "times in this run", nullptr}},
};

constexpr const char* sentAgain = "messages in this run; its messages are sent again";

constexpr InputCount outputCounts[] = {
    {&CanPortInfo::queueFull,
     {"NotSentQueueFull", "has not sent", "messages in this run: its queue was full", sentAgain}},
    {&CanPortInfo::closed, {"NotSentClosed", "has not sent", "messages in this run: its port is not open", sentAgain}},
    {&CanPortInfo::failed,
     {"NotSentFailed", "has not sent", "messages in this run: the system refused them", sentAgain}},
    {&CanPortInfo::invalid,
     {"NotSentInvalid", "has not sent", "messages in this run: they had more than 8 bytes", sentAgain}},
    {&CanPortInfo::silent,
     {"NotSentListenOnly", "has not sent", "messages in this run: its port only listens", sentAgain}},
};

constexpr LossCount::Words clockSteps{
    "ClockSteps", "have seen",
    "steps of the system clock against the master clock in this run: frames that waited are dropped", nullptr};

template <size_t N>
void makeCounts(CanPortInfo& port, Channel& channel, std::vector<CanPortInfo::Count>& counts,
                const InputCount (&rows)[N]) {
    counts.clear();
    for (const InputCount& row : rows) {
        port.*row.count = std::make_shared<LossCount>("Channel \"" + channel.name + "\"", row.words);
        counts.push_back(port.*row.count);
    }
    channel.losses = counts;
}

double secondsOf(std::chrono::nanoseconds duration) {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(duration).count()) / 1e6;
}

}  // namespace

CanSocketSubDevice::CanSocketSubDevice(std::uint16_t mask) {
    hasOutputChannels = true;
    const int interfaces = std::min(Commands::getNoOfCANPorts(), mostPorts);
    for (int i = 0; i < interfaces; ++i) {
        if ((mask >> (mostPorts - 1 - i) & 1) == 0) {
            continue;
        }
        auto& socket = ports.emplace_back().socket;
        auto info = socket.getSocketInfo();
        info.interfaceName = "can" + std::to_string(i);
        socket.setSocketInfo(info);
        if (const auto result = socket.start(); result < 0) {
            ports.back().whyClosed = std::to_string(result) + ", " + std::generic_category().message(errno);
            std::printf("\n\n\n\n\n\n\n\ncanDemo.start(): failed!\n\n\n\n\n");
        }
    }
    setMaxChannelsCount(static_cast<int>(2 * ports.size()));
    softSync.initiate();
}

CanSocketSubDevice::~CanSocketSubDevice() = default;

void CanSocketSubDevice::initializeHardware() {
    CANDevice::initializeHardware();
    clockSteps_ = std::make_shared<LossCount>("The CAN interfaces", clockSteps);
    int index = 0;
    for (auto& port : ports) {
        port.inputChannel = getCANChannel(index++);
        port.outputChannel = getCANChannel(index++);
        makeCounts(port, *port.inputChannel, port.inputCounts, inputCounts);
        makeCounts(port, *port.outputChannel, port.outputCounts, outputCounts);
        port.inputChannel->losses.push_back(clockSteps_);
    }
}

void CanSocketSubDevice::initializeAcquisition(bool recursive) {
    CANDevice::initializeAcquisition(recursive);
    const auto device = std::dynamic_pointer_cast<DaqDevice>(getDevice());
    masterClock_ = device ? device->masterClock : nullptr;
    for (auto& port : ports) {
        port.sentCount = 0;
        for (const auto* const counts : {&port.inputCounts, &port.outputCounts}) {
            std::for_each(counts->begin(), counts->end(), [](const auto& count) { count->reset(); });
        }
    }
    if (clockSteps_) {
        clockSteps_->reset();
    }
}

void CanSocketSubDevice::startAcquisition(bool) {
    configurePorts();
    softSync.reset();
    lastMaster_ = 0.0;
    lastSlave_ = 0.0;
    lastWidth_ = 0.0;
    moment_ = oneMoment;
    emptySockets();
    startTime = std::chrono::system_clock::now();
    lastSyncTime = {};
}

// A port that can't be configured fails nothing, and hears or sends nothing, or at another rate than its bus: the log
// says so.
void CanSocketSubDevice::configurePorts() {
    for (auto& port : ports) {
        const Commands& commands = port.socket.getCommands();
        port.listenOnly = port.inputChannel->writeEnable == 0;
        const auto bitRate = static_cast<std::uint64_t>(std::max(port.inputChannel->baudRate, 0));
        std::string trouble = port.whyClosed.empty() ? "" : "; it is not open (" + port.whyClosed + ")";
        const auto check = [&trouble](const std::string& setting, int status) {
            if (status != 0) {
                trouble +=
                    "; \"" + setting + "\" " +
                    (WIFEXITED(status) && status != -1 ? "ended with status " + std::to_string(WEXITSTATUS(status))
                                                       : "could not be run");
            }
        };
        check("down", commands.runLinkSetDown());
        check("bitrate " + std::to_string(bitRate), commands.runLinkSetBitrate(bitRate));
        check(port.listenOnly ? "listen-only on" : "listen-only off", commands.runIsListenOnly(port.listenOnly));
        check("up", commands.runLinkSetUp());
        if (!trouble.empty()) {
            LOG_(0, plog::error) << "The interface " << commands.getDeviceDesignation() << " of \""
                                 << port.inputChannel->name << "\" is not as wanted" << trouble;
        }
    }
}

// A full socket would have no room for the first frames of the run; and that the interface went down shows as a failed
// read.
void CanSocketSubDevice::emptySockets() {
    CanSockFrameInfo frame;
    for (auto& port : ports) {
        port.discard = false;
        for (int i = 0; i < mostFramesInACycle; ++i) {
            const auto result = port.socket.receive(frame);
            if (result == CanResult::nothingToRead || result == CanResult::closed) {
                break;
            }
            if (result >= 0) {
                port.beforeStart->add(1);
            }
        }
        port.lastKernelDrops = port.socket.getKernelDrops();
    }
    lastDropCheck_ = std::chrono::steady_clock::now();
}

double CanSocketSubDevice::calculateCurrentDeviceTime(SystemTime timePoint) const {
    return secondsOf(timePoint - startTime);
}

// Returns how long it took; `now` is its end. What came between must not pass for a step.
std::chrono::nanoseconds CanSocketSubDevice::readClocks(double& master, SystemTime& now) const {
    auto shortest = SystemTime::duration::max();
    for (int attempt = 0; attempt < 3 && shortest > goodMoment; ++attempt) {
        const SystemTime before = std::chrono::system_clock::now();
        const double time = masterClock_->getCurrentTime(true);
        const SystemTime after = std::chrono::system_clock::now();
        if (after >= before && after - before < shortest) {
            shortest = after - before;
            master = time;
            now = after;
        }
    }
    return shortest;
}

bool CanSocketSubDevice::haveParted(double master, double slave, double uncertain) const {
    if (lastMaster_ <= 0.0) {
        return slave < 0.0;
    }
    const double masterAdvance = master - lastMaster_;
    return std::abs(masterAdvance - (slave - lastSlave_)) > mostApart * std::max(masterAdvance, 1.0) + uncertain;
}

// A pair each 100 ms; whether the clocks have parted since the last one is asked before any frame gets its time.
void CanSocketSubDevice::synchronizeClocks() {
    double master = noTime;
    SystemTime now{};
    if (!masterClock_) {
        return;
    }
    const auto took = readClocks(master, now);
    if (took > moment_) {
        moment_ = std::min<std::chrono::nanoseconds>(2 * moment_, longestMoment);
        return;
    }
    moment_ = oneMoment;
    if (master < 0.0) {
        return;
    }
    // Nothing beyond what is meant by one moment.
    const double width = secondsOf(std::max<std::chrono::nanoseconds>(took - oneMoment, std::chrono::nanoseconds(0)));
    double slave = calculateCurrentDeviceTime(now);
    if (haveParted(master, slave, lastWidth_ + width)) {
        clockSteps_->add(1);
        softSync.reset();
        // The slave's time goes on as the master's: it must not be below 0, wherever the system clock stands now.
        startTime = now - std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(master));
        slave = calculateCurrentDeviceTime(now);
        for (auto& port : ports) {
            port.discard = true;
        }
    } else if (now - lastSyncTime <= pairDistance) {
        return;
    }
    softSync.setDeviceTime(master, slave);
    lastSyncTime = now;
    lastMaster_ = slave > 0.0 ? master : 0.0;
    lastSlave_ = slave;
    lastWidth_ = width;
}

// Once in a cycle: for a pair that is due, or when there is a frame that wants its time.
void CanSocketSubDevice::askClocks() {
    if (std::exchange(clocksAsked_, true)) {
        return;
    }
    try {
        synchronizeClocks();
    } catch (...) {
        clockFailure_ = std::current_exception();
    }
    clockLine_ = softSync.line();
}

void CanSocketSubDevice::acquireData() {
    CANDevice::acquireData();
    if (ports.empty()) {
        return;
    }
    clocksAsked_ = false;
    clockFailure_ = nullptr;
    if (std::chrono::system_clock::now() - lastSyncTime > pairDistance) {
        askClocks();
    }
    Trouble first = Trouble::None;
    std::string words;
    for (auto& port : ports) {
        const Trouble trouble = receiveFrames(port);
        if (trouble == Trouble::None) {
            continue;
        }
        first = first == Trouble::None ? trouble : first;
        words += (words.empty() ? "" : "; ") +
                 (trouble == Trouble::Unused
                      ? "frames on " + port.socket.getCommands().getDeviceDesignation() +
                            " while its input channel is not in use"
                      : "a cycle brought more frames on " + port.socket.getCommands().getDeviceDesignation() +
                            " than its input channel holds");
    }
    countKernelDrops();
    for (auto& port : ports) {
        const bool flowed = port.inputChannel->samplesThisCycle > 0;
        for (const auto& count : port.inputCounts) {
            count->endOfPass(flowed);
        }
    }
    clockSteps_->endOfPass(true);
    if (clockFailure_) {
        std::rethrow_exception(std::exchange(clockFailure_, nullptr));
    }
    if (first == Trouble::Unused) {
        throw NotActiveChannelException(words);
    }
    if (first == Trouble::Overflow) {
        throw DataLostException(words);
    }
}

CanSocketSubDevice::Trouble CanSocketSubDevice::receiveFrames(CanPortInfo& port) {
    Trouble first = Trouble::None;
    CanSockFrameInfo frame;
    std::int32_t result = 0;
    for (int i = 0; i < mostFramesInACycle && (result = port.socket.receive(frame)) >= 0; ++i) {
        askClocks();
        const Trouble trouble = take(port, frame);
        first = first == Trouble::None ? trouble : first;
    }
    if (result == CanResult::nothingToRead || result == CanResult::closed) {
        port.discard = false;
    } else if (result == CanResult::errorFrame) {
        port.errorFrames->add(1);
    } else if (result < 0) {
        port.failedReads->add(1);
    }
    return first;
}

// The channel's own tests come here as questions: an exception for each frame would cost more than the frame.
CanSocketSubDevice::Trouble CanSocketSubDevice::take(CanPortInfo& port, const CanSockFrameInfo& frame) const {
    if (port.discard) {
        port.atClockSteps->add(1);
        return Trouble::None;
    }
    const double slave =
        calculateCurrentDeviceTime(SystemTime(std::chrono::microseconds(static_cast<std::int64_t>(frame.timestamp))));
    if (slave < 0.0) {
        port.beforeStart->add(1);
        return Trouble::None;
    }
    const double time = clockLine_.masterTimeAt(slave);
    if (time == noTime) {
        port.withoutTime->add(1);
        return Trouble::None;
    }
    if (time < 0.0) {
        port.beforeZero->add(1);
        return Trouble::None;
    }
    CANChannel& channel = *port.inputChannel;
    if (!channel.active) {
        port.unused->add(1);
        return Trouble::Unused;
    }
    if (channel.samplesThisCycle + 1 > channel.buffer->getCapacity()) {
        port.overflowed->add(1);
        return Trouble::Overflow;
    }
    CanMessage message;
    message.id = static_cast<std::uint32_t>(frame.canId);
    message.dataLength = frame.dataLength;
    std::memcpy(message.data, frame.data, sizeof message.data);
    channel.addSample(message, time);
    return Trouble::None;
}

void CanSocketSubDevice::countKernelDrops() {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastDropCheck_ < pairDistance) {
        return;
    }
    lastDropCheck_ = now;
    for (auto& port : ports) {
        const std::int64_t drops = port.socket.getKernelDrops();
        if (drops >= 0 && port.lastKernelDrops >= 0 && drops != port.lastKernelDrops) {
            // The kernel counts in 32 bits.
            port.kernelDrops->add(static_cast<std::uint32_t>(drops - port.lastKernelDrops));
        }
        port.lastKernelDrops = drops;
    }
}

void CanSocketSubDevice::sendData() {
    CANDevice::sendData();
    for (auto& port : ports) {
        CANChannel& channel = *port.outputChannel;
        const std::uint64_t total = channel.samplesAcquired.get();
        const auto pending =
            static_cast<int>(std::min<std::uint64_t>(total - port.sentCount, channel.buffer->getSize()));
        for (int relative = -pending; relative < 0; ++relative) {
            send(port,
                 *static_cast<const CanMessage*>(channel.buffer->getSample(channel.getPosAtRelativePos(relative))));
        }
        port.sentCount = total;
        for (const auto& count : port.outputCounts) {
            count->endOfPass(pending > 0);
        }
    }
}

// A port that only listens takes frames and drops them.
void CanSocketSubDevice::send(CanPortInfo& port, const CanMessage& message) {
    const auto result = port.socket.send(message.data, message.dataLength, message.id);
    if (result == CanResult::closed) {
        port.closed->add(1);
    } else if (result == CanResult::invalidParameters) {
        port.invalid->add(1);
    } else if (port.listenOnly) {
        port.silent->add(1);
    } else if (result == CanResult::wouldBlock || (result == CanResult::writeFailed && errno == ENOBUFS)) {
        port.queueFull->add(1);
    } else if (result < 0) {
        port.failed->add(1);
    }
}

}  // namespace Harvane::RT::Modules::Daq
