#include "modules/daq/amplifier/AmplifierBridgeBalancer.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>

#include <zorn/types/object_impl.h>

#include "modules/daq/objectmodel/AIChannel.h"
#include "modules/daq/objectmodel/AIDevice.h"
#include "modules/daq/objectmodel/Amplifier.h"
#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

constexpr int maxRangeSwitches = 3;

// Leaves a balancing that was told to stop.
struct Stopped {};

// A thread's own object, gone when the thread has left all other code of this library: the count goes down only then,
// and the C library keeps this destructor's code loaded until it has returned.
struct ThreadInLibrary {
    ~ThreadInLibrary() { zornSharedLibObjectCount.fetch_sub(1, std::memory_order_acq_rel); }
};

void say(const char* text) {
    std::printf("%s\n", text);
    std::fflush(stdout);
}

// Nothing may leave the thread, also not the failure of a log.
void logFailure(const std::string& channel, const char* text) noexcept {
    try {
        LOG_(0, plog::error) << "Balancing of an amplifier failed (" << channel << "): " << text;
    } catch (...) {
        std::fprintf(stderr, "Balancing of an amplifier failed: %s\n", text);
    }
}

// Only a failure of a lock or unlock that was asked for is told; on the way of another exception that one counts.
class AcquisitionLock {
public:
    explicit AcquisitionLock(const AcquisitionSyncPtr& sync) : sync_(sync) { sync_.lock(); }
    ~AcquisitionLock() {
        if (locked_ && failed(sync_->unlock())) {
            zornClearErrorInfo();
        }
    }
    AcquisitionLock(const AcquisitionLock&) = delete;
    AcquisitionLock& operator=(const AcquisitionLock&) = delete;

    void unlock() {
        locked_ = false;
        sync_.unlock();
    }

private:
    const AcquisitionSyncPtr& sync_;
    bool locked_ = true;
};

bool isLive(const std::shared_ptr<AIChannel>& channel) {
    return channel && channel->active && channel->buffer && channel->buffer->getCapacity() > 0 &&
           channel->buffer->getSize() > 0;
}

std::shared_ptr<AIChannel> liveChannel(Amplifier& amplifier) {
    const auto device = amplifier.getParent<AIDevice>();
    if (!device) {
        throw InvalidStateException("its device is gone.");
    }
    if (!device->acqRunning) {
        throw InvalidStateException("no acquisition is running.");
    }
    // Two channels share an amplifier, whose index is that of the second, filtered one.
    auto channel = device->getAIChannel(amplifier.index);
    if (isLive(channel)) {
        return channel;
    }
    for (const auto& candidate : device->channels) {
        channel = std::dynamic_pointer_cast<AIChannel>(candidate);
        if (channel && channel->amplifier.get() == &amplifier && isLive(channel)) {
            return channel;
        }
    }
    throw InvalidStateException("none of its channels has samples.");
}

}  // namespace

struct AmplifierBridgeBalancer::State {
    AcquisitionSyncPtr sync;
    std::string channel;
    std::atomic<std::int32_t> running{0};
    std::chrono::nanoseconds settleTime;
    std::mutex settings;
    std::mutex stopMutex;
    std::condition_variable stopCondition;
    std::atomic<bool> stopped{false};
};

AmplifierBridgeBalancer::AmplifierBridgeBalancer(AcquisitionSyncPtr sync, std::chrono::nanoseconds settleTime)
    : state_(std::make_shared<State>()) {
    state_->sync = std::move(sync);
    state_->settleTime = settleTime;
}

void AmplifierBridgeBalancer::setChannelName(const std::string& name) {
    state_->channel = name;
}

bool AmplifierBridgeBalancer::balanceAmplifier(const std::shared_ptr<Amplifier>& amplifier) {
    std::int32_t idle = 0;
    if (state_->stopped || !state_->running.compare_exchange_strong(idle, 1, std::memory_order_acq_rel)) {
        return false;
    }
    zornSharedLibObjectCount.fetch_add(1, std::memory_order_relaxed);
    try {
        std::thread([balancer = *this, amplifier]() mutable {
            [[maybe_unused]] thread_local ThreadInLibrary inLibrary;
            balancer.startBalancing(amplifier);
        }).detach();
    } catch (...) {
        zornSharedLibObjectCount.fetch_sub(1, std::memory_order_acq_rel);
        state_->running.store(0, std::memory_order_release);
        throw;
    }
    return true;
}

bool AmplifierBridgeBalancer::isBalancingRunning() const {
    return state_->running.load(std::memory_order_acquire) == 1;
}

bool AmplifierBridgeBalancer::resetAmplifierBalance(const std::shared_ptr<Amplifier>& amplifier) {
    const auto lock = lockSettings();
    amplifier->bridgeOffset = 0.0;
    return true;
}

void AmplifierBridgeBalancer::stop() {
    {
        const std::lock_guard lock(state_->stopMutex);
        state_->stopped = true;
    }
    state_->stopCondition.notify_all();
}

std::unique_lock<std::mutex> AmplifierBridgeBalancer::lockSettings() const {
    return std::unique_lock(state_->settings);
}

void AmplifierBridgeBalancer::startBalancing(const std::shared_ptr<Amplifier>& amplifier) {
    say("BALANCING START");
    try {
        bool changed = performInitialBalancing(amplifier);
        for (int i = 0; changed && i < maxRangeSwitches; ++i) {
            changed = performRangeSwitchBalancing(amplifier);
        }
    } catch (const Stopped&) {
    } catch (const std::exception& exception) {
        logFailure(state_->channel, exception.what());
    } catch (...) {
        logFailure(state_->channel, "an unknown failure.");
    }
    state_->running.store(0, std::memory_order_release);
    say("BALANCING END");
}

bool AmplifierBridgeBalancer::performInitialBalancing(const std::shared_ptr<Amplifier>& amplifier) {
    endIfStopped();
    const int before = fittingRange(amplifier);
    const int after = balanceAndGetNewRange(amplifier);
    say("INITIAL BALANCING...");
    return before != after;
}

bool AmplifierBridgeBalancer::performRangeSwitchBalancing(const std::shared_ptr<Amplifier>& amplifier) {
    endIfStopped();
    say("DEVICE SWITCH BALANCING...");
    const int index = fittingRange(amplifier);
    updateDeviceRangeDuringAcquisition(amplifier, index);
    settle();
    return balanceAndGetNewRange(amplifier) != index;
}

int AmplifierBridgeBalancer::balanceAndGetNewRange(const std::shared_ptr<Amplifier>& amplifier) {
    const double value = getCurrentAmplChValue(amplifier);
    const auto lock = lockSettings();
    amplifier->bridgeOffset = amplifier->bridgeOffset - value;
    return amplifier->calculateBridgeModeDeviceRangeIndex();
}

double AmplifierBridgeBalancer::getCurrentAmplChValue(const std::shared_ptr<Amplifier>& amplifier) {
    AcquisitionLock acquisition(state_->sync);
    double value = 0.0;
    {
        const auto channel = liveChannel(*amplifier);
        // The number of the sample, whatever type it is stored in.
        const auto raw = static_cast<float>(channel->buffer->getSampleInDouble(channel->getPosAtRelativePos(-1)));
        const auto settings = lockSettings();
        value = static_cast<double>(raw) * amplifier->getScale() + amplifier->getOffset();
    }
    acquisition.unlock();
    return value;
}

void AmplifierBridgeBalancer::updateDeviceRangeDuringAcquisition(const std::shared_ptr<Amplifier>& amplifier,
                                                                 int index) {
    amplifier->updateDeviceRangeDuringAcquisition(index);
    AcquisitionLock acquisition(state_->sync);
    {
        const auto settings = lockSettings();
        amplifier->updateCalibrationFactorsDuringAcquisition();
    }
    acquisition.unlock();
}

int AmplifierBridgeBalancer::fittingRange(const std::shared_ptr<Amplifier>& amplifier) const {
    const auto lock = lockSettings();
    return amplifier->calculateBridgeModeDeviceRangeIndex();
}

void AmplifierBridgeBalancer::settle() {
    std::unique_lock lock(state_->stopMutex);
    if (state_->stopCondition.wait_for(lock, state_->settleTime, [this] { return state_->stopped.load(); })) {
        throw Stopped();
    }
}

void AmplifierBridgeBalancer::endIfStopped() const {
    if (state_->stopped) {
        throw Stopped();
    }
}

}  // namespace Harvane::RT::Modules::Daq
