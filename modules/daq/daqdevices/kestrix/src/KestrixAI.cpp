#include "modules/daq/daqdevices/kestrix/src/KestrixAI.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/AdcControl.h"
#include "modules/daq/daqdevices/kestrix/src/DspControl.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixKernel.h"
#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/ChannelFolder.h"
#include "shared/libraries/kestrix/src/AmplifierCommunication.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/GlobalControlRegister.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace RegistersAddress = Shared::Kestrix::RegistersAddress;

namespace {

constexpr int maxModules = 8;  // DSP chains and converter pairs in the FPGA
constexpr int clock15MHz = 15000000;
constexpr int highRateLimit = 2000000;  // above it only the raw stream runs, at integer divisions of the clock
constexpr int lowestSearchedRate = 8;
constexpr int lowestRate = 10;

bool isFiltered(int number) {
    return number % 2 != 0;
}

PlatformVCXOClockControl::ClockOption oscillatorOption(int clock) {
    return clock == clock15MHz ? PlatformVCXOClockControl::CLOCK_15_MHZ : PlatformVCXOClockControl::CLOCK_10_MHZ;
}

// Where a failure must not make another one.
void logQuietly(const char* what, const std::exception& error) noexcept {
    try {
        KESTRIX_LOG(6, "{}: {}", what, error.what());
    } catch (...) {
    }
}

// Whether the filtered stream can run at the rate.
bool isExact(int clock, int rate) {
    uint32_t halfBands = 0;
    uint64_t ratio = 0;
    return rate > 0 && DspControl::calculateRatioValue(clock, static_cast<uint32_t>(rate), halfBands, ratio);
}

}  // namespace

int KestrixAI::moduleCount() {
    return std::min({static_cast<int>(RegistersAddress::maxAIModules), maxModules,
                     static_cast<int>(RegistersAddress::maxAIChannels) / 2});
}

KestrixAI::KestrixAI(std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> access)
    : access_(std::move(access)),
      modules_(moduleCount()),
      globalControl_(std::make_shared<Shared::Kestrix::GlobalControlRegister>(
          access_, RegistersAddress::globalControlBaseAddress, true)),
      pllControl_(access_, RegistersAddress::pllControlBaseAddress, true) {
    // A clock that was chosen earlier in this process is still in force.
    baseClock = static_cast<int>(RegistersAddress::baseClock);
    setMaxChannelsCount(2 * modules_);
    try {
        build();
    } catch (...) {
        switchOffQuietly();
        throw;
    }
}

KestrixAI::~KestrixAI() {
    // A stream that runs on would refuse the set-up of whoever opens it next.
    stopStartedTransfers();
    switchOffQuietly();
}

void KestrixAI::build() {
    enableSupply();
    amplifierCommunication_ =
        std::make_shared<Shared::Kestrix::AmplifierCommunication>(static_cast<unsigned long>(modules_));
    for (int channel = 0; channel < 2 * modules_; ++channel) {
        kernels_.push_back(std::make_shared<KestrixKernel>(channel));
    }
    for (int module = 0; module < modules_; ++module) {
        const bool detected = amplifierCommunication_->getAmplifier(module)->readProperties();
        std::printf("Module %d was %s.\n", module + 1, detected ? "detected" : "not detected");
        dspControls_.push_back(std::make_shared<DspControl>(access_, module));
    }
    adcControl_ = std::make_shared<AdcControl>(access_);
    adcControl_->disableAdcs();
}

void KestrixAI::switchOffQuietly() noexcept {
    try {
        disableSupply();
    } catch (const std::exception& error) {
        logQuietly("supply could not be switched off", error);
    }
}

std::shared_ptr<KestrixDevice> KestrixAI::getKestrix() const {
    return getParent<KestrixDevice>();
}

void KestrixAI::setSimulationMode(bool on) {
    simulationMode = on;
    if (on) {
        disableSupply();
    }
}

// ---- Supply and clock -----------------------------------------------------------------------------------------------

void KestrixAI::enableSupply() {
    // The small board's modules are always on.
    if (RegistersAddress::deviceType != 0) {
        return;
    }
    globalControl_->ENI.write(false);
    globalControl_->PSI.write(85);
    globalControl_->PLI.write(3);
    if (globalControl_->EI.read() == 255) {
        return;
    }
    KESTRIX_LOG(4, "enabling supply from application");
    // One module after the other, so that their inrush currents don't add up.
    for (int module = modules_ - 1; module >= 0; --module) {
        globalControl_->EI.write(static_cast<unsigned char>(255 >> module));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
}

void KestrixAI::disableSupply() {
    KESTRIX_LOG(4, "disabling supply from application");
    globalControl_->EI.write(0);
    if (amplifierCommunication_) {
        for (int module = 0; module < modules_; ++module) {
            amplifierCommunication_->getAmplifier(module)->clearDeviceProperties();
        }
    }
}

void KestrixAI::readAmplifiers() {
    for (int module = 0; module < modules_; ++module) {
        amplifierCommunication_->getAmplifier(module)->readProperties();
    }
}

void KestrixAI::onBaseClockChanged() {
    const int previousClock = static_cast<int>(RegistersAddress::baseClock);
    if (baseClock == previousClock) {
        return;
    }
    KESTRIX_LOG(2, "PLL clock: newBaseClock = {}, previousBaseClock = {}", baseClock, previousClock);
    try {
        disableSupply();
        moveToClock(baseClock, previousClock);
    } catch (...) {
        // The clock in force stays and the amplifiers get their supply back: the change can be asked for again.
        baseClock = previousClock;
        enableSupply();
        readAmplifiers();
        throw;
    }
    RegistersAddress::baseClock = baseClock;
    enableSupply();
    readAmplifiers();
    for (const auto& channel : channels) {
        setChannelMaxRate(*channel);
    }
    if (const std::shared_ptr<KestrixDevice> device = getKestrix()) {
        device->onBaseClockChanged();
    }
}

void KestrixAI::moveToClock(int clock, int previousClock) {
    if (!vcxoClockControl_.setClock(oscillatorOption(clock))) {
        throw std::runtime_error("KestrixAI::configureClock failed");
    }
    try {
        pllControl_.setClock(clock == clock15MHz ? Shared::Kestrix::ClockOption::Clock15MHz
                                                 : Shared::Kestrix::ClockOption::Clock10MHz);
    } catch (...) {
        // Oscillator and PLL only work as a pair.
        vcxoClockControl_.setClock(oscillatorOption(previousClock));
        throw;
    }
}

// ---- Channels -------------------------------------------------------------------------------------------------------

std::shared_ptr<Amplifier> KestrixAI::createAmplifier(int index) {
    if (isFiltered(index)) {
        return getAIChannel(index - 1)->amplifier;
    }
    return std::make_shared<KestrixAmplifier>(amplifierCommunication_->getAmplifier(index / 2));
}

void KestrixAI::setChannelProperties(std::shared_ptr<AIChannel> channel) {
    const int moduleType = channel->amplifier->getModuleType();
    if (moduleType < 1 && !simulationMode) {
        channel->enabled = false;
    }
    AIDevice::setChannelProperties(channel);
    setChannelMaxRate(*channel);
    const bool filtered = isFiltered(channel->number);
    channel->resolution = filtered ? 32 : 16;
    channel->name = filtered ? "Filtered input" : "Raw input";
    KESTRIX_LOG(2, "channel: [{}] module type: {}, enabled: {}", channel->name, moduleType, channel->enabled);
}

void KestrixAI::setChannelMaxRate(Channel& channel) const {
    channel.maxRate = isFiltered(channel.number) ? DspControl::maxFilteredRate(baseClock) : baseClock;
}

void KestrixAI::initializeHardware() {
    AIDevice::initializeHardware();
    for (size_t c = 0; c < kernels_.size(); ++c) {
        // Whole 4-byte words in every descriptor.
        channels[c]->bufferGranularity = 4 / channels[c]->buffer->getSampleSize() * kernels_[c]->bdCount;
    }
}

void KestrixAI::buildChannelView() {
    Device::buildChannelView();
    channelView->clearChannels();
    for (int module = 0; module < modules_; ++module) {
        const auto folder = std::make_shared<ChannelFolder>("AI " + std::to_string(module + 1), true);
        folder->addChannel(channels[2 * module]);
        folder->addChannel(channels[2 * module + 1]);
        channelView->push_back(folder);
    }
}

// ---- Rates ----------------------------------------------------------------------------------------------------------

int KestrixAI::checkRate(int rate) const {
    return checkRate(rate, baseClock);
}

int KestrixAI::checkRate(int rate, int clock) const {
    if (clock <= rate) {
        return clock;
    }
    if (rate > highRateLimit) {
        for (int k = 2; clock / k > highRateLimit; ++k) {
            const int candidate = clock / k;
            if (candidate <= rate && clock % candidate == 0) {
                return candidate;
            }
        }
    }
    // The nearest whole division of the clock at or below the request. Every division of the clock below a candidate is
    // clock / q for a larger whole q than the candidate's own, so the rates between two of them can be passed over.
    for (int candidate = rate; candidate > lowestSearchedRate; candidate = clock / (clock / candidate + 1)) {
        if (clock % candidate == 0 && isExact(clock, candidate)) {
            return candidate;
        }
    }
    return lowestRate;
}

int KestrixAI::getBaseClockForSampleRate(int rate) {
    if (checkRate(rate) == rate) {
        return baseClock;
    }
    for (const int clock : baseClocks) {
        if (clock != baseClock && checkRate(rate, clock) == rate) {
            return clock;
        }
    }
    return baseClock;
}

int KestrixAI::checkChannelRate(int channelNumber, int deviceRate, int requested) const {
    const Channel& channel = *channels.at(static_cast<size_t>(channelNumber));
    // 64 bits: rates near the top of the range add up beyond 32.
    const int limited = requested < channel.minRate ? channel.minRate : std::min(requested, channel.maxRate);
    const int64_t rate = std::max(limited, 1);
    if (deviceRate < 1) {
        return deviceRate;
    }
    const int64_t full = deviceRate;
    const int64_t first = (full + rate - 1) / rate;
    if (!isFiltered(channelNumber)) {
        return static_cast<int>(full / first);
    }

    // Only a divider that leaves no rest fits. Such a divider is the device rate over a whole number, the channel's
    // rate, so the search goes from one whole rate to the next instead of from one divider to the next.
    const int clock = static_cast<int>(RegistersAddress::baseClock);
    const auto fits = [&](int64_t divider) {
        return full % divider == 0 && isExact(clock, static_cast<int>(full / divider));
    };
    // The last divider that is looked at is the first one that gives the lowest searched rate or less.
    const int64_t last = std::max(first, full / (lowestSearchedRate + 1) + 1);
    for (int64_t divider = first; divider <= last;) {
        if (fits(divider)) {
            return static_cast<int>(full / divider);
        }
        const int64_t below = full % divider == 0 ? full / divider - 1 : full / divider;
        if (below < 1) {
            break;
        }
        divider = (full + below - 1) / below;
    }
    // Nothing below the request fits: look above it. The device rate itself ends the search.
    for (int64_t divider = first - 1; divider > 1; --divider) {
        divider = full / ((full + divider - 1) / divider);
        if (divider > 1 && fits(divider)) {
            return static_cast<int>(full / divider);
        }
    }
    return deviceRate;
}

// ---- Acquisition ----------------------------------------------------------------------------------------------------

// A channel can be ticked as used and still be out of order, such as that of an empty slot. A channel that the clock
// asked for runs without being used.
bool KestrixAI::takesPart(const Channel& channel) {
    return channel.active && (channel.used || channel.enableFirst);
}

uint32_t KestrixAI::rateInUse(const Channel& channel) {
    return takesPart(channel) ? static_cast<uint32_t>(channel.getRate()) : 0;
}

void KestrixAI::prepareAcquisition(bool recursive) {
    AIDevice::prepareAcquisition(recursive);
    // Left over from a start that failed behind this device.
    stopStartedTransfers();
    // The mode of this run from here to its end, whatever the host asks for meanwhile.
    runInUsbMode_ = usbMode;
    for (const auto& channel : channels) {
        channel->noReserve = runInUsbMode_;
        const int rate = channel->getRate();
        if (isFiltered(channel->number) && rate <= DspControl::maxFilteredRate(baseClock)) {
            channel->phaseDelay = static_cast<int>(DspControl::calculateDspDelay(baseClock, rate) / 1000.0 * rate);
        }
    }
}

void KestrixAI::configureChannel(KestrixKernel& kernel, Channel& channel) {
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
    kernel.updateConfiguration(runInUsbMode_);
}

void KestrixAI::initializeAcquisition(bool recursive) {
    AIDevice::initializeAcquisition(recursive);
    for (const auto& dsp : dspControls_) {
        dsp->clearDspChain();
    }
    for (size_t c = 0; c < kernels_.size(); ++c) {
        configureChannel(*kernels_[c], *channels[c]);
    }
    const int clock = static_cast<int>(RegistersAddress::baseClock);
    for (size_t m = 0; m < dspControls_.size(); ++m) {
        const Channel& raw = *channels[2 * m];
        // From the divider and not from the whole-numbered rate: a seventh of 1000 is 105000 ticks of 15 MHz, where
        // 142 would give 105633 and the channel would fall behind the others.
        const int64_t decimation = static_cast<int64_t>(clock) * raw.srDiv / std::max(raw.deviceRate, 1);
        dspControls_[m]->configureDspLogic(clock, rateInUse(raw), rateInUse(*channels[2 * m + 1]),
                                           static_cast<uint32_t>(decimation));
    }
    for (const auto& dsp : dspControls_) {
        dsp->enableSampleProcessing();
    }
    for (const auto& dsp : dspControls_) {
        dsp->configureStartTriggerControl(simulationMode);
    }
    gatherRunningStreams();
    startTransfers();
}

// The host leaves a channel's memory in place for the whole run, so that a cycle need not ask for it.
void KestrixAI::gatherRunningStreams() {
    runningStreams_.clear();
    for (size_t c = 0; c < kernels_.size(); ++c) {
        Channel& channel = *channels[c];
        if (takesPart(channel)) {
            IChannelBuffer& buffer = *channel.buffer;
            runningStreams_.push_back({kernels_[c].get(), &channel, &buffer,
                                       static_cast<unsigned char*>(buffer.getData()),
                                       buffer.getCapacity() * buffer.getSampleSize(), buffer.getSampleSize(),
                                       static_cast<unsigned long>(kernels_[c]->bdSize), false});
        }
    }
}

// All streams or none: a driver that streams already refuses the set-up of the next attempt.
void KestrixAI::startTransfers() {
    try {
        for (transfersStarted_ = 0; transfersStarted_ < kernels_.size(); ++transfersStarted_) {
            kernels_[transfersStarted_]->startTransfer(runInUsbMode_);
        }
    } catch (...) {
        stopStartedTransfers();
        throw;
    }
}

void KestrixAI::stopStartedTransfers() noexcept {
    // Their buffers belong to the start that failed.
    runningStreams_.clear();
    for (; transfersStarted_ > 0; --transfersStarted_) {
        try {
            kernels_[transfersStarted_ - 1]->stopTransfer(runInUsbMode_);
        } catch (const std::exception& error) {
            logQuietly("transfer could not be stopped", error);
        }
    }
}

void KestrixAI::startAcquisition(bool recursive) {
    AIDevice::startAcquisition(recursive);
    std::vector<bool> modulesInUse;
    for (size_t m = 0; m < dspControls_.size(); ++m) {
        modulesInUse.push_back(takesPart(*channels[2 * m]) || takesPart(*channels[2 * m + 1]));
    }
    const auto device = getParent<DaqDevice>();
    adcControl_->enableAdcs(modulesInUse, simulationMode, !device || device->synchronization.isOnlyStandalone());
}

void KestrixAI::stopAcquisition(bool recursive) {
    AIDevice::stopAcquisition(recursive);
    adcControl_->disableAdcs();
}

void KestrixAI::finalizeAcquisition(bool recursive) {
    runningStreams_.clear();
    AIDevice::finalizeAcquisition(recursive);
    for (const auto& dsp : dspControls_) {
        dsp->disableSampleProcessing();
    }
    for (const auto& kernel : kernels_) {
        kernel->stopTransfer(runInUsbMode_);
    }
    transfersStarted_ = 0;
    for (const auto& dsp : dspControls_) {
        dsp->clearDspChain();
    }
}

void KestrixAI::acquireData() {
    Device::acquireData();
    // In USB mode the driver delivers elsewhere.
    if (runInUsbMode_) {
        return;
    }
    for (RunningStream& stream : runningStreams_) {
        // Up to the end of the channel's storage and, when that was reached, once more from its start.
        if (transferSamples(stream)) {
            transferSamples(stream);
        }
    }
}

// One read. Returns whether it reached the end of the storage.
bool KestrixAI::transferSamples(RunningStream& stream) {
    const unsigned long position = stream.position();
    const unsigned long free = stream.size - position;
    KESTRIX_LOG(1, "available storage: {}, sample size: {}", free, stream.sampleSize);
    // A rest smaller than a descriptor is still filled when a descriptor was delivered in parts before: the buffer's
    // end could not be passed otherwise.
    if (free < stream.bdSize && !(stream.betweenDescriptors && free > 0)) {
        KESTRIX_LOG(4, "available storage too low: {} < {}", free, stream.bdSize);
        return false;
    }
    const long count = stream.kernel->acquireData(stream.storage + position, free);
    if (count < 1) {
        return false;
    }
    const unsigned long samples = static_cast<unsigned long>(count) / stream.sampleSize;
    KESTRIX_LOG(1, "added {} samples to the [{}] channel buffer", samples, stream.channel->name);
    stream.channel->incSamplePosition(samples);
    stream.betweenDescriptors = stream.position() % stream.bdSize != 0;
    return static_cast<unsigned long>(count) == free;
}

}  // namespace Harvane::RT::Modules::Daq
