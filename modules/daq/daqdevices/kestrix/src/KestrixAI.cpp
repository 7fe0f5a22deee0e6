#include "modules/daq/daqdevices/kestrix/src/KestrixAI.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>
#include <utility>

#include "libraries/devices/embedded/MmapRegisterAccess.h"
#include "modules/daq/daqdevices/kestrix/src/AdcControl.h"
#include "modules/daq/daqdevices/kestrix/src/DspControl.h"
#include "modules/daq/daqdevices/kestrix/src/FirstFailure.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixAmplifier.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDaqTiming.h"
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

constexpr int highRateLimit = 2000000;  // above it only the raw stream runs, at integer divisions of the clock
constexpr int lowestSearchedRate = 8;
constexpr int lowestRate = 10;

bool isFiltered(int number) {
    return number % 2 != 0;
}

// Whether the filtered stream can run at the rate.
bool isExact(int clock, int rate) {
    uint32_t halfBands = 0;
    uint64_t ratio = 0;
    return rate > 0 && DspControl::calculateRatioValue(clock, static_cast<uint32_t>(rate), halfBands, ratio);
}

}  // namespace

// Gives the amplifiers their supply back at the end of its scope.
class KestrixAI::SupplyReturn {
public:
    SupplyReturn(KestrixAI& ai, FirstFailure& failure) : ai_(ai), failure_(failure) { ai_.amplifiersPending_ = true; }
    ~SupplyReturn() {
        ai_.amplifiersPending_ = !failure_.attempt("Supply", [this] { ai_.enableSupply(); });
    }
    SupplyReturn(const SupplyReturn&) = delete;
    SupplyReturn& operator=(const SupplyReturn&) = delete;

private:
    KestrixAI& ai_;
    FirstFailure& failure_;
};

KestrixAI::KestrixAI(std::shared_ptr<ZornLib::Devices::Embedded::MmapRegisterAccess> access,
                     const BoardIdentity& identity)
    : access_(std::move(access)),
      identity_(identity),
      modules_(identity.usableModules()),
      globalControl_(std::make_shared<Shared::Kestrix::GlobalControlRegister>(
          access_, RegistersAddress::globalControlBaseAddress, true)) {
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
    run_.reset();
    switchOffQuietly();
}

void KestrixAI::build() {
    clock_.emplace(access_);
    if (clock_->inForce() == SamplingClock::unknown) {
        setClockOfNobody();
    }
    baseClock = clock_->inForce();
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
        // What a program that was killed has left on: rates are only taken over by a stream that is switched on.
        dspControls_.back()->disableSampleProcessing();
    }
    adcControl_ = std::make_shared<AdcControl>(access_);
    adcControl_->disableAdcs();
}

// PLLs that hold no clock, such as after a change that was cut off.
void KestrixAI::setClockOfNobody() {
    KESTRIX_LOG(4, "The PLLs hold no clock, setting {} Hz", SamplingClock::clock15MHz);
    disableSupply();
    runQuietly("The sampling clock is unknown", [this] { clock_->moveTo(SamplingClock::clock15MHz); });
}

void KestrixAI::switchOffQuietly() noexcept {
    runQuietly("supply could not be switched off", [this] { disableSupply(); });
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
    if (!identity_.hasModuleSupply()) {
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

std::string KestrixAI::getSupplyState() {
    if (!identity_.hasModuleSupply()) {
        return "always on";
    }
    try {
        const int modules = globalControl_->EI.read();
        return modules == 255 ? "on" : modules == 0 ? "off" : "on for some modules only";
    } catch (const std::exception& failure) {
        return std::string("unknown: ") + failure.what();
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

// Those that aren't known. `expected`: whose silence is a failure.
void KestrixAI::readAmplifiers(const std::vector<bool>& expected, FirstFailure& failure) {
    for (int module = 0; module < modules_; ++module) {
        const bool done = failure.attempt("Amplifier", [&] {
            auto& amplifier = *amplifierCommunication_->getAmplifier(module);
            if (!amplifier.isAmplifierDefined() && !amplifier.readProperties() &&
                expected[static_cast<size_t>(module)]) {
                throw std::runtime_error(fmt::format("The amplifier in slot {} doesn't answer any more.", module + 1));
            }
        });
        amplifiersPending_ |= !done;
    }
}

// A slot that is silent once more counts as empty: whoever has taken the amplifier out can measure with the others.
void KestrixAI::restoreAmplifiers() {
    FirstFailure failure;
    { const SupplyReturn supplyReturn(*this, failure); }
    readAmplifiers(std::vector<bool>(static_cast<size_t>(modules_)), failure);
    failure.rethrow();
}

bool KestrixAI::isClockKnown() {
    const bool known = clock_->verify();
    baseClock = clock_->inForce();
    return known;
}

bool KestrixAI::runsAt(int clock) {
    return isClockKnown() && baseClock == clock && !amplifiersPending_;
}

void KestrixAI::requireClock() {
    if (!isClockKnown()) {
        throw std::runtime_error("The sampling clock is unknown: a base clock has to be chosen before a start.");
    }
}

void KestrixAI::onBaseClockChanged() {
    const int wanted = std::exchange(baseClock, clock_->inForce());
    KESTRIX_LOG(2, "PLL clock: newBaseClock = {}, previousBaseClock = {}", wanted, clock_->forRates());
    // What has been set up for a start is of the old clock.
    endRun();
    std::vector<bool> present;
    for (int module = 0; module < modules_; ++module) {
        present.push_back(amplifierCommunication_->getAmplifier(module)->isAmplifierDefined());
    }
    FirstFailure failure;
    {
        const SupplyReturn supplyReturn(*this, failure);
        failure.attempt("Clock", [&] {
            disableSupply();
            clock_->moveTo(wanted);
        });
    }
    readAmplifiers(present, failure);
    adoptClock();
    failure.rethrow();
}

// Everything that goes by the clock.
void KestrixAI::adoptClock() {
    baseClock = clock_->inForce();
    for (const auto& channel : channels) {
        setChannelMaxRate(*channel);
    }
    if (const std::shared_ptr<KestrixDevice> device = getKestrix()) {
        device->onBaseClockChanged();
        maxRate = device->maxRate;
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
    channel.maxRate = clock_->maxRate(isFiltered(channel.number));
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
        const auto raw = 2 * static_cast<size_t>(module);
        folder->addChannel(channels[raw]);
        folder->addChannel(channels[raw + 1]);
        channelView->push_back(folder);
    }
}

// ---- Rates ----------------------------------------------------------------------------------------------------------

int KestrixAI::checkRate(int rate) const {
    return checkRate(rate, clock_->forRates());
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
    const int current = clock_->forRates();
    if (checkRate(rate) == rate) {
        return current;
    }
    for (const int clock : baseClocks) {
        if (clock != current && checkRate(rate, clock) == rate) {
            return clock;
        }
    }
    return current;
}

int KestrixAI::checkChannelRate(int channelNumber, int deviceRate, int requested) const {
    const Channel& channel = *channels.at(static_cast<size_t>(channelNumber));
    const int limited = requested < channel.minRate ? channel.minRate : std::min(requested, channel.maxRate);
    const int rate = std::max(limited, 1);
    if (deviceRate < 1) {
        return deviceRate;
    }
    if (!isFiltered(channelNumber)) {
        return ChannelRate::atOrBelow(deviceRate, rate);
    }
    // 64 bits: rates near the top of the range add up beyond 32.
    const int64_t full = deviceRate;
    const int64_t first = (full + rate - 1) / rate;

    // Only a divider that leaves no rest fits. Such a divider is the device rate over a whole number, the channel's
    // rate, so the search goes from one whole rate to the next instead of from one divider to the next.
    const int clock = clock_->forRates();
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

void KestrixAI::endRun() {
    if (run_) {
        run_->end();
        run_.reset();
    }
}

void KestrixAI::endRunQuietly() noexcept {
    runQuietly("The acquisition could not be ended", [this] { endRun(); });
}

void KestrixAI::prepareAcquisition(bool recursive) {
    endRun();
    requireClock();
    if (amplifiersPending_) {
        restoreAmplifiers();
    }
    AIDevice::prepareAcquisition(recursive);
    preparedForUsb_ = usbMode;
    for (const auto& channel : channels) {
        channel->noReserve = preparedForUsb_;
        const int rate = channel->getRate();
        if (isFiltered(channel->number) && rate <= clock_->maxRate(true)) {
            channel->phaseDelay =
                static_cast<int>(DspControl::calculateDspDelay(clock_->inForce(), rate) / 1000.0 * rate);
        }
    }
}

void KestrixAI::initializeAcquisition(bool recursive) {
    endRun();
    requireClock();
    AIDevice::initializeAcquisition(recursive);
    mostDescriptors_ = 0;
    run_ = std::make_unique<Run>(Run::Parts{channels, kernels_, dspControls_, *adcControl_, mostDescriptors_},
                                 preparedForUsb_);
    try {
        run_->setUp(clock_->inForce(), simulationMode);
    } catch (...) {
        endRunQuietly();
        throw;
    }
}

void KestrixAI::startAcquisition(bool recursive) {
    if (!run_) {
        throw std::runtime_error("The analog inputs have not been set up for a start.");
    }
    AIDevice::startAcquisition(recursive);
    const auto device = getParent<DaqDevice>();
    run_->switchConvertersOn(simulationMode, !device || device->appliedSynchronization.isOnlyStandalone());
    if (const auto timing = getTiming()) {
        timing->startTransfer();
    }
}

std::shared_ptr<KestrixDaqTiming> KestrixAI::getTiming() const {
    const auto device = getParent<DaqDevice>();
    return device ? std::dynamic_pointer_cast<KestrixDaqTiming>(device->daqTiming) : nullptr;
}

void KestrixAI::stopAcquisition(bool recursive) {
    FirstFailure failure;
    failure.attempt("Stop", [&] { AIDevice::stopAcquisition(recursive); });
    if (const auto timing = getTiming()) {
        failure.attempt("Start trigger", [&] { timing->stopTransfer(); });
    }
    if (run_) {
        failure.attempt("Converters", [this] { run_->switchConvertersOff(); });
    }
    failure.rethrow();
}

void KestrixAI::finalizeAcquisition(bool recursive) {
    if (run_) {
        run_->releaseBuffers();
    }
    FirstFailure failure;
    failure.attempt("Finalise", [&] { AIDevice::finalizeAcquisition(recursive); });
    failure.attempt("End of the acquisition", [this] { endRun(); });
    failure.rethrow();
}

void KestrixAI::abortAcquisition() noexcept {
    AIDevice::abortAcquisition();
    endRunQuietly();
}

void KestrixAI::acquireData() {
    Device::acquireData();
    if (run_) {
        run_->acquireData();
    }
}

}  // namespace Harvane::RT::Modules::Daq
