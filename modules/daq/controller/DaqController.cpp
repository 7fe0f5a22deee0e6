#include "modules/daq/controller/DaqController.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <stdexcept>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/objectmodel/Log.h"
#include "modules/daq/objectmodel/SystemDevice.h"

namespace Harvane::RT::Modules::Daq {

namespace {

// Rate that a tree starts with, as far as its devices can do it.
constexpr int defaultSampleRate = 1000;

// Share of a channel's ring that the fastest channel may be ahead of the slowest.
constexpr double maxDrift = 0.75;

// What a channel's ring holds, in samples of the full rate.
double ringOf(const Channel& channel) {
    return static_cast<double>(channel.buffer->getCapacity() * static_cast<std::uint64_t>(channel.srDiv));
}

// Rates that checkSampleRate tries. The instrument has a few hundred legal ones, a device that takes any rate meets a
// common divider long before.
constexpr int maxRateSteps = 100000;

SynchronizationOption standalone() {
    return {SynchronizationMode::Standalone, {}};
}

}  // namespace

DaqController::DaqController() = default;
DaqController::~DaqController() = default;

void DaqController::require(AcquisitionStep step) const {
    const std::string refusal = refusalOf(step, phase());
    if (!refusal.empty()) {
        throw WrongPhaseException(refusal);
    }
}

void DaqController::setPhase(AcquisitionPhase phase) {
    phase_.store(phase, std::memory_order_release);
    if (systemDevice) {
        systemDevice->setAcqRunning(acqRunning());
        systemDevice->setAcqStopping(acqStopping());
    }
}

void DaqController::invalidate() {
    if (phase() == AcquisitionPhase::Initialised) {
        setPhase(AcquisitionPhase::Prepared);
    }
}

void DaqController::abortAcquisition() noexcept {
    if (systemDevice) {
        systemDevice->abortAcquisition();
    }
}

// Nothing may keep a tree of an earlier scan alive or drive it on.
void DaqController::reset() noexcept {
    abortAcquisition();
    setPhase(AcquisitionPhase::Empty);
    daqDevices.clear();
    allChannels.clear();
    acquisitionChannels.clear();
    masterClockDevice.reset();
    loopDevice.reset();
    daqTiming.reset();
    publishTimeSources();
    systemDevice.reset();
}

void DaqController::initialize() {
    interfaces.finalize();
    daqFactory.createInterfaces(interfaces);
    interfaces.initialize();
}

void DaqController::scan() {
    if (acqRunning()) {
        require(AcquisitionStep::Add);
    }
    reset();
    interfaces.scan();
    systemDevice = daqFactory.createSystemDevice(interfaces);
    systemDevice->initialize();
    for (const auto& device : systemDevice->getAllDevices()) {
        if (auto daqDevice = std::dynamic_pointer_cast<DaqDevice>(device)) {
            daqDevices.push_back(daqDevice);
        }
    }
}

void DaqController::initializeHardware() {
    if (acqRunning()) {
        require(AcquisitionStep::Add);
    }
    systemDevice->initializeHardware();
    for (const auto& text : systemDevice->checkHardware()) {
        LOG_WARNING << DeviceError(text).text;
    }
    systemDevice->buildChannelView();

    const auto options = getSynchronizationOptions();
    if (options.empty()) {
        LOG_FATAL << "No valid sync option";
        throw std::runtime_error("No valid sync option");
    }
    setSynchronization(*options.begin());
    chooseTimeSources();

    allChannels = systemDevice->getAllChannels();
    int index = 0;
    for (const auto& channel : allChannels) {
        channel->index = index++;
    }
    setSampleRate(checkSampleRate(defaultSampleRate));
    setPhase(AcquisitionPhase::Scanned);
}

void DaqController::applySynchronization() {
    require(AcquisitionStep::Configure);
    invalidate();
    chooseTimeSources();
}

// The devices follow the chosen option from here on, and every query is answered by the clocks that belong to it.
void DaqController::chooseTimeSources() {
    setMasterClockDevice();
    setLoopDevice();
    setDaqTiming();
    publishTimeSources();
    systemDevice->applySynchronization();
    appliedSynchronization = synchronization;
}

void DaqController::publishTimeSources() {
    TimeSources sources{masterClockDevice ? masterClockDevice->daqClock : nullptr, daqTiming};
    const std::lock_guard<std::mutex> guard(timeSourcesMutex_);
    // What was there before ends outside of the lock.
    std::swap(timeSources_, sources);
}

DaqController::TimeSources DaqController::timeSources() const {
    const std::lock_guard<std::mutex> guard(timeSourcesMutex_);
    return timeSources_;
}

void DaqController::prepareAcquisition() {
    require(AcquisitionStep::Initialize);
    abortAcquisition();
    // A start does it all again, so that one which fails here has not lost its place.
    invalidate();
    systemDevice->setOperationMode(operationMode);
    systemDevice->prepareAcquisition(true);
    setPhase(AcquisitionPhase::Prepared);
}

void DaqController::initializeAcquisition() {
    require(AcquisitionStep::BeforeStart);
    abortAcquisition();
    setPhase(AcquisitionPhase::Prepared);
    clearEnableFirstChannelFlags();
    if (masterClockDevice && masterClockDevice->daqClock && masterClockDevice->daqClock->needsChannel) {
        setEnableFirstChannelFlag();
    }
    try {
        systemDevice->setUsedChannels(true);
        systemDevice->initializeAcquisition(true);
    } catch (...) {
        abortAcquisition();
        throw;
    }
    acquisitionChannels = allChannels.getActiveChannels();
    smallestRing_ = std::numeric_limits<double>::infinity();
    for (const auto& channel : acquisitionChannels) {
        if (channel->sampleType == SampleType::Sync) {
            smallestRing_ = std::min(smallestRing_, ringOf(*channel));
        }
    }
    lastSum_ = 0;
    maxSamplesAcquired = 0;
    setPhase(AcquisitionPhase::Initialised);
}

void DaqController::startAcquisition() {
    require(AcquisitionStep::Start);
    if (!acqInitialized()) {
        throw WrongPhaseException("\"start\" is refused: the run has not been set up with \"BeforeStart\".");
    }
    try {
        systemDevice->startAcquisition(true);
    } catch (...) {
        abortAcquisition();
        setPhase(AcquisitionPhase::Prepared);
        throw;
    }
    setPhase(AcquisitionPhase::Running);
}

void DaqController::stopAcquisition() {
    require(AcquisitionStep::Stop);
    if (!acqRunning()) {
        abortAcquisition();
        setPhase(AcquisitionPhase::Prepared);
        return;
    }
    setPhase(AcquisitionPhase::Stopping);
    std::exception_ptr firstFailure;
    const auto attempt = [&](void (Device::*step)(bool)) {
        try {
            (systemDevice.get()->*step)(true);
        } catch (...) {
            if (!firstFailure) {
                firstFailure = std::current_exception();
            }
        }
    };
    attempt(&Device::stopAcquisition);
    attempt(&Device::finalizeAcquisition);
    if (firstFailure) {
        // A failing device has left those behind it in the walk as they were.
        abortAcquisition();
    }
    setPhase(AcquisitionPhase::Prepared);
    if (firstFailure) {
        std::rethrow_exception(firstFailure);
    }
}

void DaqController::acquireData() {
    // What fails in one device leaves the samples of the others where they are to be counted.
    std::exception_ptr failure;
    try {
        systemDevice->acquireData();
    } catch (...) {
        failure = std::current_exception();
    }
    try {
        countSamples();
    } catch (...) {
        failure = failure ? failure : std::current_exception();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void DaqController::countSamples() {
    const auto [least, most, sum] = acquisitionChannels.getSamplesAcquired();
    maxSamplesAcquired = most;
    const auto drift = static_cast<double>(most - least);
    // Most cycles find nothing ready and leave everything where it was.
    if (sum == lastSum_ && drift <= maxDrift * smallestRing_) {
        return;
    }
    lastSum_ = sum;
    for (const auto& channel : acquisitionChannels) {
        if (channel->sampleType != SampleType::Sync) {
            continue;
        }
        const auto divider = static_cast<std::uint64_t>(channel->srDiv);
        channel->samplesBehind = most - divider * channel->samplesAcquired.get();
        if (drift > maxDrift * smallestRing_ && drift > maxDrift * ringOf(*channel)) {
            throw DataLostException();
        }
    }
}

void DaqController::sendData() {
    systemDevice->sendData();
}

double DaqController::getCurrentTime() const {
    const auto clock = timeSources().clock;
    return clock ? clock->getCurrentTime(true) : -1.0;
}

int DaqController::getMinSampleRate() const {
    int lowest = std::numeric_limits<int>::max();
    bool found = false;
    for (const auto& device : daqDevices) {
        if (device->hasDeviceRate()) {
            lowest = std::min(lowest, device->minRate);
            found = true;
        }
    }
    return found ? lowest : 1;
}

int DaqController::getMaxSampleRate() const {
    const auto fastest = findDeviceWithMaxSR();
    return fastest ? fastest->maxRate : 10;
}

std::shared_ptr<DaqDevice> DaqController::findDeviceWithMaxSR() const {
    std::shared_ptr<DaqDevice> fastest;
    for (const auto& device : daqDevices) {
        if (device->hasDeviceRate() && (!fastest || device->maxRate > fastest->maxRate)) {
            fastest = device;
        }
    }
    return fastest;
}

bool DaqController::isSRValidForAllDevices(int rate) const {
    return std::all_of(daqDevices.begin(), daqDevices.end(), [rate](const std::shared_ptr<DaqDevice>& device) {
        return !device->hasDeviceRate() || device->checkRate(rate, rate) >= 0;
    });
}

void DaqController::setSampleRate(int rate) {
    sampleRate = rate;
    for (const auto& device : daqDevices) {
        if (device->hasDeviceRate()) {
            device->setSampleRate(rate);
        }
    }
}

int DaqController::checkSampleRate(int rate) const {
    const int lowest = getMinSampleRate();
    const int clamped = rate < lowest ? lowest : std::min(rate, getMaxSampleRate());
    const auto device = findDeviceWithMaxSR();
    if (!device) {
        return clamped;
    }
    const int nearest = device->checkRate(clamped);
    int candidate = nearest;
    for (int step = 0; step < maxRateSteps; ++step) {
        if (isSRValidForAllDevices(candidate)) {
            return candidate;
        }
        const int next = candidate > 1 ? device->checkRate(candidate - 1) : candidate;
        if (next >= candidate) {
            break;
        }
        candidate = next;
    }
    LOG_WARNING << "No sample rate at or below " << nearest << " suits all devices; it is kept for the fastest device";
    return nearest;
}

std::shared_ptr<Device> DaqController::findDeviceByChannel(const std::shared_ptr<Channel>& channel) const {
    if (systemDevice) {
        for (const auto& device : systemDevice->getAllDevices()) {
            if (device->channelExists(channel)) {
                return device;
            }
        }
    }
    return nullptr;
}

bool DaqController::hasPartners(const std::shared_ptr<DaqDevice>& device, const SynchronizationOption& option) const {
    return std::all_of(daqDevices.begin(), daqDevices.end(), [&](const std::shared_ptr<DaqDevice>& other) {
        return other == device || getFirstValidSyncMode(other, option).first != SynchronizationMode::None;
    });
}

SynchronizationOptions DaqController::getSynchronizationOptions() const {
    if (daqDevices.empty()) {
        return {standalone()};
    }
    SynchronizationOptions all;
    for (const auto& device : daqDevices) {
        all.merge(getSynchronizationOptions(device));
    }
    return all;
}

SynchronizationOptions DaqController::getSynchronizationOptions(const std::shared_ptr<DaqDevice>& device) const {
    SynchronizationOptions kept;
    for (const auto& option : device->getSynchronizationOptions()) {
        if (option.first == SynchronizationMode::SoftSync || hasPartners(device, option)) {
            kept.insert(option);
        }
    }
    return kept;
}

void DaqController::setSynchronization(const SynchronizationOption& wanted) {
    if (daqDevices.empty() && wanted == standalone()) {
        synchronization = wanted;
        return;
    }
    for (const auto& device : daqDevices) {
        for (const auto& option : getSynchronizationOptions(device)) {
            if (!checkSynchronization(device, option, wanted)) {
                continue;
            }
            for (const auto& other : daqDevices) {
                other->setSynchronizationOption(other == device ? option : getFirstValidSyncMode(other, option));
            }
            synchronization = option;
            return;
        }
    }
    throw std::runtime_error("not valid synchronization");
}

bool DaqController::checkSynchronization(const std::shared_ptr<DaqDevice>& device, const SynchronizationOption& offered,
                                         const SynchronizationOption& wanted) const {
    return offered.first == wanted.first &&
           std::includes(offered.second.begin(), offered.second.end(), wanted.second.begin(), wanted.second.end()) &&
           hasPartners(device, offered);
}

SynchronizationOption DaqController::getFirstValidSyncMode(const std::shared_ptr<DaqDevice>& device,
                                                           const SynchronizationOption& option) const {
    for (const auto& candidate : device->getSynchronizationOptions()) {
        if (isValidSyncModeCombination(option, candidate)) {
            return candidate;
        }
    }
    return {SynchronizationMode::None, {}};
}

bool DaqController::isValidSyncModeCombination(const SynchronizationOption& a, const SynchronizationOption& b) const {
    if (b.first == SynchronizationMode::SoftSync) {
        return true;
    }
    // Both follow the same outside reference.
    if (a.first != SynchronizationMode::Standalone && a.first == b.first) {
        return true;
    }
    return a.second.hasSynchronizationMode(b.first);
}

void DaqController::setMasterClockDevice() {
    masterClockDevice.reset();
    std::shared_ptr<DaqDevice> firstWithClock;
    for (const auto& device : daqDevices) {
        if (!device->daqClock) {
            continue;
        }
        if (!firstWithClock) {
            firstWithClock = device;
        }
        const auto options = getSynchronizationOptions(device);
        if (std::any_of(options.begin(), options.end(), [&](const SynchronizationOption& option) {
                return checkSynchronization(device, option, synchronization);
            })) {
            masterClockDevice = device;
            break;
        }
    }
    if (!masterClockDevice) {
        masterClockDevice = firstWithClock;
    }
    if (masterClockDevice) {
        for (const auto& device : daqDevices) {
            device->masterClock = masterClockDevice->daqClock;
        }
    }
}

void DaqController::setLoopDevice() {
    loopDevice.reset();
    for (const auto& device : daqDevices) {
        if (device->daqLoop) {
            device->daqLoop->isLoopMaster = !loopDevice;
            if (!loopDevice) {
                loopDevice = device->daqLoop;
            }
        }
    }
}

void DaqController::setDaqTiming() {
    daqTiming = masterClockDevice ? masterClockDevice->daqTiming : nullptr;
    for (size_t i = 0; !daqTiming && i < daqDevices.size(); ++i) {
        daqTiming = daqDevices[i]->daqTiming;
    }
}

void DaqController::clearEnableFirstChannelFlags() {
    for (const auto& channel : allChannels) {
        channel->enableFirst = false;
    }
}

void DaqController::setEnableFirstChannelFlag() {
    const auto sources = masterClockDevice->getAllChannels().getChannelsBySampleType(SampleType::Sync);
    for (const auto& channel : sources) {
        if (channel->used && channel->enabled) {
            return;
        }
    }
    for (const auto& channel : sources) {
        if (channel->enabled) {
            channel->enableFirst = true;
            return;
        }
    }
}

}  // namespace Harvane::RT::Modules::Daq
