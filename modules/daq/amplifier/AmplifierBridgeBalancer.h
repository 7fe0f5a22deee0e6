#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include <zorn/structure/module.h>

namespace Harvane::RT::Modules::Daq {

class Amplifier;

// Moves an amplifier's bridge offset by the live value of its channel and then the hardware to the range that covers
// the chosen range around the new offset, while the acquisition runs. It ends when the range stays, or after three
// range switches.
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
    // Forgets the offset. The range stays until the next update of the amplifier. Always true.
    bool resetAmplifierBalance(const std::shared_ptr<Amplifier>& amplifier);
    // Ends a running balancing at its next step, also out of its wait, and lets no other start. Doesn't wait.
    void stop();

    // While held, the balancing thread reads no setting of the amplifier and changes none. Never take the acquisition
    // lock behind it.
    std::unique_lock<std::mutex> lockSettings() const;

    // The steps. An exception out of one ends the balancing, with a line in the log.

    // The whole of a balancing.
    void startBalancing(const std::shared_ptr<Amplifier>& amplifier);
    // True when the device range that fits has changed.
    bool performInitialBalancing(const std::shared_ptr<Amplifier>& amplifier);
    bool performRangeSwitchBalancing(const std::shared_ptr<Amplifier>& amplifier);
    // Takes the live value off the offset, and gives the device range for what comes out. The live value contains
    // the earlier offset where the amplifier's own getOffset says so; where it doesn't, each call takes it off again.
    int balanceAndGetNewRange(const std::shared_ptr<Amplifier>& amplifier);
    // The newest sample of the amplifier's channel by the amplifier's scale and offset of this moment. Throws
    // InvalidStateException without a device, a running acquisition or a sample.
    double getCurrentAmplChValue(const std::shared_ptr<Amplifier>& amplifier);
    void updateDeviceRangeDuringAcquisition(const std::shared_ptr<Amplifier>& amplifier, int index);

private:
    struct State;

    int fittingRange(const std::shared_ptr<Amplifier>& amplifier) const;
    void settle();
    void endIfStopped() const;

    std::shared_ptr<State> state_;
};

}  // namespace Harvane::RT::Modules::Daq
