#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "modules/daq/objectmodel/IChannelBuffer.h"

namespace Harvane::RT::Modules::Daq {

class AdcControl;
class Channel;
class DeviceChannels;
class DspControl;
class KestrixKernel;

// One acquisition of the analog inputs, from the first descriptor to the last cleared chain: knows what it has switched
// on and takes that back, whatever fails on the way. One thread at a time.
class Run {
public:
    // What a run drives; outlives it.
    struct Parts {
        const DeviceChannels& channels;                               // two a module
        const std::vector<std::shared_ptr<KestrixKernel>>& kernels;   // one a channel
        const std::vector<std::shared_ptr<DspControl>>& dspControls;  // one a module
        AdcControl& adcControl;
        std::atomic<int>& mostDescriptors;  // of one stream, that a cycle has found
    };

    // In USB mode the driver delivers elsewhere: nothing is read here.
    Run(const Parts& parts, bool usbMode);
    ~Run();  // ends what is still on
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Everything up to the converters, for the channels in use: their buffers have memory and keep it until end().
    // Failures of the hardware pass through; what was switched on before stays so until end().
    void setUp(int baseClock, bool simulationMode);
    void switchConvertersOn(bool simulationMode, bool standalone);
    void switchConvertersOff();

    // One cycle: at most two reads a channel, straight into its buffer. Allocates nothing. Failures of a read and
    // DataLostException pass through.
    void acquireData();
    // Cycles read nothing from here on: the buffers may go.
    void releaseBuffers() { streams_.clear(); }

    // Switches off what is on: converters, chains, transfers, in the end the chains are cleared. Goes on past failures
    // and throws the first one. What couldn't be switched off stays noted, for another end().
    void end();

private:
    // A stream in use, with what stays as it is for the whole run.
    struct Stream {
        KestrixKernel* kernel;
        Channel* channel;
        std::shared_ptr<IChannelBuffer> buffer;
        unsigned char* storage;
        unsigned long size;        // bytes of the storage
        unsigned long sampleSize;  // bytes
        unsigned long bdSize;      // bytes
        unsigned long position;    // bytes from its start to where the next samples go
        bool betweenDescriptors;   // the last read ended inside a descriptor

        // One read. Returns whether it reached the end of the storage.
        bool transferSamples();
    };

    void noteDescriptors(const Stream& stream) const;
    void fitDescriptors(KestrixKernel& kernel, Channel& channel) const;
    void configureChains(int baseClock) const;
    void gatherStreams();

    const Parts parts_;
    const bool usbMode_;
    std::vector<Stream> streams_;            // in channel order
    std::vector<KestrixKernel*> transfers_;  // started and not stopped
    bool chainsOn_ = false;
    bool convertersOn_ = false;
};

}  // namespace Harvane::RT::Modules::Daq
