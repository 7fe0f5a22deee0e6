#include "modules/daq/amplifier/AmplifierBridgeBalancer.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
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

// Leaves a balancing that was told to stop, or whose acquisition is over.
struct Stopped {};
struct AcquisitionOver {};
constexpr const char* acquisitionOver = "its acquisition has ended.";

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
void logEnd(plog::Severity severity, const char* how, const std::string& channel, const char* text) noexcept {
    try {
        LOG_(0, severity) << "Balancing of an amplifier " << how << " (" << channel << "): " << text;
    } catch (...) {
        std::fprintf(stderr, "Balancing of an amplifier %s: %s\n", how, text);
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

// `begun`: a balancing has had samples of its acquisition already.
std::shared_ptr<AIChannel> liveChannel(Amplifier& amplifier, bool begun) {
    const auto refuse = [begun](const char* reason) {
        if (begun) {
            throw AcquisitionOver();
        }
        throw InvalidStateException("%s", reason);
    };
    const auto device = amplifier.getParent<AIDevice>();
    if (!device) {
        refuse("its device is gone.");
    }
    if (!device->acqRunning) {
        refuse("no acquisition is running.");
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
    refuse("none of its channels has samples.");
    return nullptr;
}

}  // namespace

struct AmplifierBridgeBalancer::State {
    AcquisitionSyncPtr sync;
    std::string channel;
    std::atomic<std::int32_t> running{0};
    std::chrono::nanoseconds settleTime;
    std::mutex resultMutex;
    std::string result;
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

std::string AmplifierBridgeBalancer::result() const {
    const std::lock_guard lock(state_->resultMutex);
    return state_->result;
}

void AmplifierBridgeBalancer::startBalancing(const std::shared_ptr<Amplifier>& amplifier) {
    const auto setResult = [this](const std::string& text) {
        const std::lock_guard lock(state_->resultMutex);
        state_->result = text;
    };
    const auto fail = [&](const char* text) {
        logEnd(plog::error, "failed", state_->channel, text);
        setResult(std::string("failed: ") + text);
    };
    say("BALANCING START");
    try {
        setResult("running");
        settings_ = amplifier->settings();
        begun_ = false;
        bool changed = performInitialBalancing(amplifier);
        for (int i = 0; changed && i < maxRangeSwitches; ++i) {
            changed = performRangeSwitchBalancing(amplifier);
        }
        setResult("balanced");
    } catch (const Stopped&) {
        setResult("stopped: the module goes.");
    } catch (const AcquisitionOver&) {
        logEnd(plog::warning, "stopped", state_->channel, acquisitionOver);
        setResult(std::string("stopped: ") + acquisitionOver);
    } catch (const std::exception& exception) {
        fail(exception.what());
    } catch (...) {
        fail("an unknown failure.");
    }
    settings_.reset();
    begun_ = false;
    state_->running.store(0, std::memory_order_release);
    say("BALANCING END");
}

bool AmplifierBridgeBalancer::performInitialBalancing(const std::shared_ptr<Amplifier>& amplifier) {
    endIfStopped();
    const int before = fittingRange(*amplifier);
    const int after = balanceAndGetNewRange(amplifier);
    say("INITIAL BALANCING...");
    return before != after;
}

bool AmplifierBridgeBalancer::performRangeSwitchBalancing(const std::shared_ptr<Amplifier>& amplifier) {
    endIfStopped();
    say("DEVICE SWITCH BALANCING...");
    const int index = fittingRange(*amplifier);
    updateDeviceRangeDuringAcquisition(amplifier, index);
    settle();
    return balanceAndGetNewRange(amplifier) != index;
}

int AmplifierBridgeBalancer::balanceAndGetNewRange(const std::shared_ptr<Amplifier>& amplifier) {
    amplifier->bridgeOffset.fetch_sub(getCurrentAmplChValue(amplifier));
    return fittingRange(*amplifier);
}

double AmplifierBridgeBalancer::getCurrentAmplChValue(const std::shared_ptr<Amplifier>& amplifier) {
    AcquisitionLock acquisition(state_->sync);
    double value = 0.0;
    {
        const auto channel = liveChannel(*amplifier, begun_);
        keepToOneRun(channel);
        // The number of the sample, whatever type it is stored in.
        const auto raw = static_cast<float>(channel->buffer->getSampleInDouble(channel->getPosAtRelativePos(-1)));
        value = static_cast<double>(raw) * channel->quantum() * amplifier->getScale() + amplifier->getOffset();
    }
    acquisition.unlock();
    return value;
}

void AmplifierBridgeBalancer::updateDeviceRangeDuringAcquisition(const std::shared_ptr<Amplifier>& amplifier,
                                                                 int index) {
    amplifier->updateDeviceRangeDuringAcquisition(index);
    AcquisitionLock acquisition(state_->sync);
    amplifier->updateCalibrationFactorsDuringAcquisition();
    acquisition.unlock();
}

// By the settings of this balancing; a step by itself takes those of the moment.
int AmplifierBridgeBalancer::fittingRange(Amplifier& amplifier) const {
    const auto settings = settings_ ? settings_ : amplifier.settings();
    return settings->bridgeDeviceRange(amplifier.bridgeOffset);
}

// A balancing reads samples of one acquisition only.
void AmplifierBridgeBalancer::keepToOneRun(const std::shared_ptr<AIChannel>& channel) {
    if (!settings_) {
        return;
    }
    if (!begun_) {
        channel_ = channel;
        run_ = channel->run;
        begun_ = true;
    }
    if (channel_.lock() != channel || run_ != channel->run) {
        throw AcquisitionOver();
    }
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
