#pragma once

#include <memory>
#include <vector>

#include "modules/daq/daqdevices/kestrix/src/PlatformVCXOClockControl.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/IChannelBuffer.h"
#include "shared/libraries/kestrix/src/registers/PllControlRegister.h"

namespace Harvane::ZornLib::Devices::Embedded {
class MmapRegisterAccess;
}
namespace Harvane::Shared::Kestrix {
class AmplifierCommunication;
class GlobalControlRegister;
}  // namespace Harvane::Shared::Kestrix

namespace Harvane::RT::Modules::Daq {

class AdcControl;
class Channel;
class DspControl;
class KestrixDevice;
class KestrixKernel;

// The analog path of the instrument. A module is one amplifier slot with two channels: 2m, the raw stream (16 bits, an
// integer division of the base clock), and 2m + 1, the filtered stream (32 bits, any rate that the resampler makes).
// Both share one amplifier. Samples go from the DMA devices straight into the channels' buffers.
// State operations and acquireData come from one thread at a time. Hardware failures pass through as exceptions.
class KestrixAI : public AIDevice {
public:
    // Switches the supply on (0.3 s a slot when it was off), looks for amplifiers and opens the DMA devices. When any
    // of it fails the supply is off again.
    explicit KestrixAI(std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> access);
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
    void prepareAcquisition(bool recursive) override;
    void initializeAcquisition(bool recursive) override;
    void startAcquisition(bool recursive) override;
    void stopAcquisition(bool recursive) override;
    void finalizeAcquisition(bool recursive) override;
    // At most two reads a channel. Allocates nothing.
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
    // Moves the whole instrument to `baseClock`. Takes seconds: the amplifiers lose their supply meanwhile. When the
    // oscillator refuses, throws std::runtime_error; the clock in force stays and the change can be asked for again.
    void onBaseClockChanged() override;

    // Slots that exist as hardware, whatever the identity memory says.
    static int moduleCount();

    const std::vector<std::shared_ptr<KestrixKernel>>& getKernels() const { return kernels_; }
    const std::shared_ptr<Shared::Kestrix::AmplifierCommunication>& getAmplifierCommunication() const {
        return amplifierCommunication_;
    }

private:
    void build();
    void readAmplifiers();
    void moveToClock(int clock, int previousClock);
    void setChannelMaxRate(Channel& channel) const;
    void configureChannel(KestrixKernel& kernel, Channel& channel);
    void startTransfers();
    void stopStartedTransfers() noexcept;
    // A stream of the present acquisition with what stays as it is until the next one: descriptors, storage and sizes.
    struct RunningStream {
        KestrixKernel* kernel;
        Channel* channel;
        IChannelBuffer* buffer;
        unsigned char* storage;
        unsigned long size;        // bytes of the storage
        unsigned long sampleSize;  // bytes
        unsigned long bdSize;      // bytes
        bool betweenDescriptors;   // the last read ended inside a descriptor

        // Bytes from the start of the storage to where the next samples go.
        unsigned long position() const { return buffer->getPosition() * sampleSize; }
    };
    void gatherRunningStreams();
    static bool transferSamples(RunningStream& stream);
    void switchOffQuietly() noexcept;
    // Whether a channel's stream runs in this acquisition.
    static bool takesPart(const Channel& channel);
    static uint32_t rateInUse(const Channel& channel);

    const std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> access_;
    const int modules_;  // the slots that exist
    std::shared_ptr<AdcControl> adcControl_;
    const std::shared_ptr<Shared::Kestrix::GlobalControlRegister> globalControl_;
    Shared::Kestrix::PllControlRegister pllControl_;
    std::vector<std::shared_ptr<KestrixKernel>> kernels_;   // one a channel
    std::vector<std::shared_ptr<DspControl>> dspControls_;  // one a module
    std::shared_ptr<Shared::Kestrix::AmplifierCommunication> amplifierCommunication_;
    PlatformVCXOClockControl vcxoClockControl_;

    bool runInUsbMode_ = false;                  // the mode that the present acquisition was prepared in
    size_t transfersStarted_ = 0;                // kernels that stream, from the first one on
    std::vector<RunningStream> runningStreams_;  // in channel order; empty between acquisitions
};

}  // namespace Harvane::RT::Modules::Daq
