#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <zorn/structure/module.h>

namespace Harvane::RT::Modules::Daq {

class AIChannel;
class Amplifier;
struct AmplifierSettings;

// Moves an amplifier's bridge offset by the live value of its channel and then the hardware to the range that covers
// the chosen range around the new offset, while the acquisition runs. It ends when the range stays, after three range
// switches, or with the acquisition that it began in: samples of a later one are no matter of its.
//
// A balancing works by the settings that were asked for when it began, whatever is asked for meanwhile.
//
// The work runs on a thread of its own, which nobody waits for. The object is a handle: copies share what the thread
// needs, and the thread owns such a copy, so whoever started it may die meanwhile. The thread counts as an object of
// this library until it has left the library's code.
//
// The acquisition lock is held for one reading of the channel and for the change of the calibration, never for a
// wait or a range switch.
class AmplifierBridgeBalancer {
public:
    // Time that samples of a new range need to arrive.
    static constexpr std::chrono::nanoseconds usualSettleTime = std::chrono::seconds(1);

    explicit AmplifierBridgeBalancer(Core::AcquisitionSyncPtr sync,
                                     std::chrono::nanoseconds settleTime = usualSettleTime);

    // For the log. Not while a balancing runs.
    void setChannelName(const std::string& name);

    // Starts the thread and returns at once; isBalancingRunning is true from then on. False, and nothing started,
    // while a balancing runs or after stop().
    bool balanceAmplifier(const std::shared_ptr<Amplifier>& amplifier);
    // From any thread.
    bool isBalancingRunning() const;
    // How the latest balancing stands, from any thread: "" before the first, "running", "balanced", or "stopped: " or
    // "failed: " with the reason.
    std::string result() const;
    // Forgets the offset. The range stays until the next update of the amplifier. Always true.
    bool resetAmplifierBalance(const std::shared_ptr<Amplifier>& amplifier);
    // Ends a running balancing at its next step, also out of its wait, and lets no other start. Doesn't wait.
    void stop();

    // The steps. An exception out of one ends the balancing, with a line in the log.

    // The whole of a balancing.
    void startBalancing(const std::shared_ptr<Amplifier>& amplifier);
    // True when the device range that fits has changed.
    bool performInitialBalancing(const std::shared_ptr<Amplifier>& amplifier);
    bool performRangeSwitchBalancing(const std::shared_ptr<Amplifier>& amplifier);
    // Takes the live value off the offset, and gives the device range for what comes out. The live value contains
    // the earlier offset where the amplifier's own getOffset says so; where it doesn't, each call takes it off again.
    int balanceAndGetNewRange(const std::shared_ptr<Amplifier>& amplifier);
    // The newest sample of the amplifier's channel in the channel's unit, by quantum, scale and offset of this moment.
    // Throws InvalidStateException without a device, a running acquisition or a sample.
    double getCurrentAmplChValue(const std::shared_ptr<Amplifier>& amplifier);
    void updateDeviceRangeDuringAcquisition(const std::shared_ptr<Amplifier>& amplifier, int index);

private:
    struct State;

    int fittingRange(Amplifier& amplifier) const;
    void keepToOneRun(const std::shared_ptr<AIChannel>& channel);
    void settle();
    void endIfStopped() const;

    std::shared_ptr<State> state_;
    // Of the balancing that this object works on.
    std::shared_ptr<const AmplifierSettings> settings_;
    std::weak_ptr<const AIChannel> channel_;
    std::uint32_t run_ = 0;
    bool begun_ = false;  // it has had a sample
};

}  // namespace Harvane::RT::Modules::Daq
