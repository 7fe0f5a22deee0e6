#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "modules/daq/daqdevices/kestrix/src/BoardIdentity.h"
#include "modules/daq/daqdevices/kestrix/src/Run.h"
#include "modules/daq/daqdevices/kestrix/src/SamplingClock.h"
#include "modules/daq/objectmodel/AIDevice.h"

namespace Harvane::ZornLib::Devices::Embedded {
class MmapRegisterAccess;
}
namespace Harvane::Shared::Kestrix {
class AmplifierCommunication;
class GlobalControlRegister;
}  // namespace Harvane::Shared::Kestrix

namespace Harvane::RT::Modules::Daq {

class FirstFailure;
class KestrixDaqTiming;
class KestrixDevice;

// The analog path of the instrument. A module is one amplifier slot with two channels: 2m, the raw stream (16 bits, an
// integer division of the base clock), and 2m + 1, the filtered stream (32 bits, any rate that the resampler makes).
// Both share one amplifier. Samples go from the DMA devices straight into the channels' buffers.
// State operations and acquireData come from one thread at a time. Hardware failures pass through as exceptions; what a
// run has switched on is switched off all the same.
class KestrixAI : public AIDevice {
public:
    // Takes over the clock that the PLLs hold, or sets 15 MHz when they hold none; switches the supply on (0.3 s a slot
    // when it was off), looks for amplifiers and opens the DMA devices. When any of it fails the supply is off again;
    // a clock that can't be set is no failure here, but one of every start.
    KestrixAI(std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> access, const BoardIdentity& identity);
    ~KestrixAI() override;

    // The parent; null while there is none.
    std::shared_ptr<KestrixDevice> getKestrix() const;

    // Counters of the FPGA instead of converters. Takes effect at the next acquisition; needs no amplifiers, so it
    // switches their supply off.
    void setSimulationMode(bool on);

    // Takes 0.3 s a slot. Nothing on a board whose modules are always on, or when the supply is on already.
    void enableSupply();
    // Forgets what the amplifiers held, too.
    void disableSupply();

    void initializeHardware() override;
    void buildChannelView() override;
    // Both end a run that is still there and refuse, in words, while the sampling clock is unknown. What a failed
    // change of the clock has left undone for the amplifiers is made up for.
    void prepareAcquisition(bool recursive) override;
    void initializeAcquisition(bool recursive) override;
    void startAcquisition(bool recursive) override;
    // These two do all that is theirs, whatever fails, and then report the first failure.
    void stopAcquisition(bool recursive) override;
    void finalizeAcquisition(bool recursive) override;
    void abortAcquisition() noexcept override;
    void acquireData() override;

    // The nearest rate at or below the request that the hardware can do, 10 at the least; the base clock for requests
    // at or above it.
    int checkRate(int rate) const override;
    // The same at another clock. Not Device's operation of this shape, which looks for dividers of a base rate.
    int checkRate(int rate, int clock) const;
    int checkChannelRate(int channelNumber, int deviceRate, int requested) const override;
    int getBaseClockForSampleRate(int rate) override;

    std::shared_ptr<Amplifier> createAmplifier(int index) override;
    void setChannelProperties(std::shared_ptr<AIChannel> channel) override;
    // Moves the whole instrument to `baseClock`. Takes seconds: the amplifiers lose their supply meanwhile. All of it
    // is done, whatever fails on the way: in the end the amplifiers have supply, they have been read, and `baseClock`
    // and all limits are those of the clock in force. Then the first failure is thrown, and the change can be asked for
    // again.
    void onBaseClockChanged() override;
    // Asks the PLLs. False as well while a change has left something undone.
    bool runsAt(int clock) override;
    std::string getSupplyState() override;
    int getMostDescriptors() const override { return mostDescriptors_; }

    const std::vector<std::shared_ptr<KestrixKernel>>& getKernels() const { return kernels_; }
    const std::shared_ptr<Shared::Kestrix::AmplifierCommunication>& getAmplifierCommunication() const {
        return amplifierCommunication_;
    }

private:
    class SupplyReturn;

    void build();
    void setClockOfNobody();
    void readAmplifiers(const std::vector<bool>& expected, FirstFailure& failure);
    void restoreAmplifiers();
    std::shared_ptr<KestrixDaqTiming> getTiming() const;
    bool isClockKnown();
    void requireClock();
    void adoptClock();
    void setChannelMaxRate(Channel& channel) const;
    void endRun();
    void endRunQuietly() noexcept;
    void switchOffQuietly() noexcept;

    const std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> access_;
    const BoardIdentity identity_;
    const int modules_;  // the slots that exist
    std::shared_ptr<AdcControl> adcControl_;
    const std::shared_ptr<Shared::Kestrix::GlobalControlRegister> globalControl_;
    std::optional<SamplingClock> clock_;
    std::vector<std::shared_ptr<KestrixKernel>> kernels_;   // one a channel
    std::vector<std::shared_ptr<DspControl>> dspControls_;  // one a module
    std::shared_ptr<Shared::Kestrix::AmplifierCommunication> amplifierCommunication_;

    bool amplifiersPending_ = false;  // a change of the clock has left them without supply, or not all were read
    bool preparedForUsb_ = false;     // the mode of the coming run, whatever the host asks for meanwhile
    std::atomic<int> mostDescriptors_{0};
    std::unique_ptr<Run> run_;  // null between acquisitions
};

}  // namespace Harvane::RT::Modules::Daq
