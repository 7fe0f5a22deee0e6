#include "modules/daq/daqdevices/kestrix/src/Run.h"

#include <algorithm>

#include "modules/daq/daqdevices/kestrix/src/AdcControl.h"
#include "modules/daq/daqdevices/kestrix/src/DspControl.h"
#include "modules/daq/daqdevices/kestrix/src/FirstFailure.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"
#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/DeviceChannels.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq {

namespace {

// A channel can be ticked as used and still be out of order, such as that of an empty slot. A channel that the clock
// asked for runs without being used.
bool takesPart(const Channel& channel) {
    return channel.active && (channel.used || channel.enableFirst);
}

uint32_t rateInUse(const Channel& channel) {
    return takesPart(channel) ? static_cast<uint32_t>(channel.getRate()) : 0;
}

}  // namespace

Run::Run(const Parts& parts, bool usbMode) : parts_(parts), usbMode_(usbMode) {}

Run::~Run() {
    runQuietly("The acquisition could not be ended", [this] { end(); });
}

void Run::setUp(int baseClock, bool simulationMode) {
    for (const auto& dsp : parts_.dspControls) {
        dsp->clearDspChain();
    }
    for (size_t c = 0; c < parts_.kernels.size(); ++c) {
        fitDescriptors(*parts_.kernels[c], *parts_.channels[c]);
    }
    configureChains(baseClock);
    chainsOn_ = true;
    for (const auto& dsp : parts_.dspControls) {
        dsp->enableSampleProcessing();
    }
    for (const auto& dsp : parts_.dspControls) {
        dsp->configureStartTriggerControl(simulationMode);
    }
    gatherStreams();
    transfers_.reserve(parts_.kernels.size());
    for (const auto& kernel : parts_.kernels) {
        kernel->startTransfer(usbMode_);
        transfers_.push_back(kernel.get());
    }
}

void Run::fitDescriptors(KestrixKernel& kernel, Channel& channel) const {
    const int64_t maxBdSize = kernel.defaultBdSize;
    const int64_t capacity =
        static_cast<int64_t>(channel.noReserve ? channel.calculateBufferCapacity() : channel.buffer->getCapacity());
    const int64_t total = capacity * static_cast<int64_t>(channel.buffer->getSampleSize());
    // The largest descriptor that the driver takes and that divides the buffer: a row of whole descriptors then ends
    // exactly where the buffer ends. Without such a size (an unused channel has no buffer at all) the last one stays.
    int64_t size = total / kernel.bdCount;
    while (size >= 4 && (size > maxBdSize || total % size != 0)) {
        size -= 4;
    }
    if (size >= 4) {
        kernel.bdSize = static_cast<int32_t>(size);
    }
    kernel.updateConfiguration(usbMode_);
}

void Run::configureChains(int baseClock) const {
    for (size_t m = 0; m < parts_.dspControls.size(); ++m) {
        const Channel& raw = *parts_.channels[2 * m];
        const Channel& filtered = *parts_.channels[2 * m + 1];
        // From the divider and not from the whole-numbered rate: a seventh of 1000 is 105000 ticks of 15 MHz, where
        // 142 would give 105633 and the channel would fall behind the others.
        const int64_t decimation = static_cast<int64_t>(baseClock) * raw.srDiv / std::max(raw.deviceRate, 1);
        parts_.dspControls[m]->configureDspLogic(baseClock, rateInUse(raw), rateInUse(filtered),
                                                 static_cast<uint32_t>(decimation));
    }
}

// The host leaves a channel's memory in place for the whole run and only this moves its position, so that a cycle that
// finds nothing need not ask the buffer for anything.
void Run::gatherStreams() {
    if (usbMode_) {
        return;
    }
    for (size_t c = 0; c < parts_.kernels.size(); ++c) {
        Channel& channel = *parts_.channels[c];
        if (takesPart(channel)) {
            IChannelBuffer& buffer = *channel.buffer;
            const unsigned long sampleSize = buffer.getSampleSize();
            streams_.push_back({parts_.kernels[c].get(), &channel, channel.buffer,
                                static_cast<unsigned char*>(buffer.getData()), buffer.getCapacity() * sampleSize,
                                sampleSize, static_cast<unsigned long>(parts_.kernels[c]->bdSize),
                                buffer.getPosition() * sampleSize, false});
        }
    }
}

void Run::switchConvertersOn(bool simulationMode, bool standalone) {
    std::vector<bool> modulesInUse;
    for (size_t m = 0; m < parts_.dspControls.size(); ++m) {
        modulesInUse.push_back(takesPart(*parts_.channels[2 * m]) || takesPart(*parts_.channels[2 * m + 1]));
    }
    convertersOn_ = true;
    parts_.adcControl.enableAdcs(modulesInUse, simulationMode, standalone);
}

void Run::switchConvertersOff() {
    parts_.adcControl.disableAdcs();
    convertersOn_ = false;
}

void Run::end() {
    releaseBuffers();
    FirstFailure failure;
    if (convertersOn_) {
        failure.attempt("Converters", [this] { switchConvertersOff(); });
    }
    const bool chainsWereOn = chainsOn_;
    if (chainsWereOn) {
        chainsOn_ = false;
        for (const auto& dsp : parts_.dspControls) {
            chainsOn_ |= !failure.attempt("DSP chain", [&] { dsp->disableSampleProcessing(); });
        }
    }
    std::erase_if(transfers_, [&](KestrixKernel* kernel) {
        return failure.attempt("Transfer", [&] { kernel->stopTransfer(usbMode_); });
    });
    if (chainsWereOn) {
        for (const auto& dsp : parts_.dspControls) {
            failure.attempt("DSP chain", [&] { dsp->clearDspChain(); });
        }
    }
    failure.rethrow();
}

void Run::acquireData() {
    for (Stream& stream : streams_) {
        // Up to the end of the channel's storage and, when that was reached, once more from its start.
        if (stream.transferSamples()) {
            stream.transferSamples();
        }
        if (stream.channel->samplesThisCycle != 0) {
            noteDescriptors(stream);
        }
    }
}

// The driver holds sixteen: how near a cycle has come to that says whether it came in time.
void Run::noteDescriptors(const Stream& stream) const {
    const auto most = static_cast<unsigned long>(parts_.mostDescriptors.load(std::memory_order_relaxed));
    const unsigned long bytes = stream.channel->samplesThisCycle * stream.sampleSize;
    if (bytes > most * stream.bdSize) {
        parts_.mostDescriptors.store(static_cast<int>((bytes + stream.bdSize - 1) / stream.bdSize),
                                     std::memory_order_relaxed);
    }
}

bool Run::Stream::transferSamples() {
    const unsigned long free = size - position;
    KESTRIX_LOG(1, "available storage: {}, sample size: {}", free, sampleSize);
    // A rest smaller than a descriptor is still filled when a descriptor was delivered in parts before: the buffer's
    // end could not be passed otherwise.
    if (free < bdSize && !(betweenDescriptors && free > 0)) {
        KESTRIX_LOG(4, "available storage too low: {} < {}", free, bdSize);
        return false;
    }
    const long count = kernel->acquireData(storage + position, free);
    if (count < 1) {
        return false;
    }
    const unsigned long samples = static_cast<unsigned long>(count) / sampleSize;
    KESTRIX_LOG(1, "added {} samples to the [{}] channel buffer", samples, channel->name);
    channel->incSamplePosition(samples);
    position = buffer->getPosition() * sampleSize;
    betweenDescriptors = position % bdSize != 0;
    return static_cast<unsigned long>(count) == free;
}

}  // namespace Harvane::RT::Modules::Daq
