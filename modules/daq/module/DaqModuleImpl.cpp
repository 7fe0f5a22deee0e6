#include "modules/daq/module/DaqModuleImpl.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <limits>

#include "modules/daq/module/LoggerConnection.h"
#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/objectmodel/Log.h"
#include "modules/daq/objectmodel/SystemDevice.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

// Truncated; times that no clock value can hold become the nearest one that can.
int64_t toTicks(double value) {
    constexpr double limit = 9.2e18;
    return std::isnan(value) ? 0 : static_cast<int64_t>(std::clamp(value, -limit, limit));
}

}  // namespace

DaqModuleImpl::DaqModuleImpl() : daqStructure(controller()) {}

DaqModuleImpl::~DaqModuleImpl() {
    // A loop that the host forgot to stop must not call into what is going.
    if (loopProc) {
        stopLoop();
    }
}

// Clock.

ErrCode DaqModuleImpl::getUnit(IString** unit) {
    return unit == nullptr ? Errors::ArgumentNull : createString(unit, "s");
}

ErrCode DaqModuleImpl::getClockBase(IRatio** base) {
    return base == nullptr ? Errors::ArgumentNull : createRatio(base, 1, clockBase);
}

ErrCode DaqModuleImpl::getResolution(IRatio** resolution) {
    return getClockBase(resolution);
}

ErrCode DaqModuleImpl::getCurrentClock(long* ticks) {
    if (ticks == nullptr) {
        return Errors::ArgumentNull;
    }
    return wrapHandler([&] { *ticks = toTicks(static_cast<double>(clockBase) * daqController.getCurrentTime()); });
}

ErrCode DaqModuleImpl::getAcquiredClock(long* ticks) {
    if (ticks == nullptr) {
        return Errors::ArgumentNull;
    }
    const double samples = static_cast<double>(daqController.maxSamplesAcquired.get());
    *ticks = toTicks(samples / daqController.sampleRate * static_cast<double>(clockBase));
    return Errors::Success;
}

// Absolute time.

ErrCode DaqModuleImpl::getStartAbsTime(long* microseconds) {
    if (microseconds == nullptr) {
        return Errors::ArgumentNull;
    }
    return wrapHandler([&] {
        const auto& timing = daqController.daqTiming;
        *microseconds = timing ? timing->getStartTime() : -1;
    });
}

ErrCode DaqModuleImpl::getCurrentAbsTime(long* microseconds) {
    if (microseconds == nullptr) {
        return Errors::ArgumentNull;
    }
    return wrapHandler([&] {
        const auto& timing = daqController.daqTiming;
        if (!timing) {
            *microseconds = -1;
            return;
        }
        bool isTracking = true;
        bool hasError = false;
        *microseconds = timing->getCurrentTime(isTracking, hasError);
        timingError = hasError;
        tracking = isTracking;
    });
}

ErrCode DaqModuleImpl::getTracking(TrackingEnum* trackingState) {
    if (trackingState == nullptr) {
        return Errors::ArgumentNull;
    }
    *trackingState = tracking ? TrackingEnum::Yes : TrackingEnum::No;
    return Errors::Success;
}

ErrCode DaqModuleImpl::getTimingError(TimingErrorEnum* error) {
    if (error == nullptr) {
        return Errors::ArgumentNull;
    }
    *error = timingError ? TimingErrorEnum::Yes : TimingErrorEnum::No;
    return Errors::Success;
}

ErrCode DaqModuleImpl::getIsAbsTimeSynchronized(unsigned char* synchronized) {
    if (synchronized == nullptr) {
        return Errors::ArgumentNull;
    }
    const auto& timing = daqController.daqTiming;
    *synchronized = timing && timing->absTimeSynchronized ? 1 : 0;
    return Errors::Success;
}

void DaqModuleImpl::forceRefreshTrackingAndErrorStatus() {
    long unused = 0;
    if (failed(getCurrentAbsTime(&unused))) {
        zornClearErrorInfo();
    }
}

// Loop.

ErrCode DaqModuleImpl::initializeLoop() {
    return wrapHandler([&] { daqStructure.initializeLoop(data, dataModule); });
}

ErrCode DaqModuleImpl::startLoop(IProcObject* cycle, IBaseObject*) {
    return wrapHandler([&] {
        if (!daqController.loopDevice) {
            throw InvalidStateException("No device drives the cycle.");
        }
        if (cycle == nullptr) {
            throw InvalidParameterException("A loop needs a procedure to run.");
        }
        loopProc = ObjectPtr<IProcObject>(cycle);
        // The function has a reference of its own: the loop may be about to run it while loopProc is replaced.
        daqController.loopDevice->setCycleFunction([proc = loopProc] { proc->dispatch(nullptr); });
    });
}

ErrCode DaqModuleImpl::stopLoop() {
    return wrapHandler([&] {
        if (daqController.loopDevice) {
            daqController.loopDevice->setCycleFunction({});
        }
        loopProc.release();
    });
}

ErrCode DaqModuleImpl::getInterval(long* milliseconds) const {
    if (milliseconds == nullptr) {
        return Errors::ArgumentNull;
    }
    const auto& loop = daqController.loopDevice;
    *milliseconds = loop && loop->cycleRate != 0 ? 1000 / loop->cycleRate : 0;
    return Errors::Success;
}

// Lifecycle.

void DaqModuleImpl::requireAdded() const {
    if (!daqController.systemDevice) {
        throw InvalidStateException("The module has not been added.");
    }
}

void DaqModuleImpl::onAdd(const ModuleAddParamsPtr& params) {
    if (addStarted_) {
        throw InvalidStateException("The module has been added already. After a failure it takes a new module.");
    }
    addStarted_ = true;
    connectLogger();
    if (!dataModule) {
        throw InvalidParameterException("The module needs a data module to build its tree in.");
    }
    rtcClasses_ = std::make_unique<RtcClasses>();
    daqController.initialize();
    daqController.scan();
    daqController.initializeHardware();
    daqStructure.buildDataModuleProps(dataModule);
    daqStructure.buildDeviceTree(daqController.systemDevice, dataModule.getRootFolder(), params.getAcquisitionSync());
}

void DaqModuleImpl::onConfigure(const ModuleConfigPtr& config) {
    requireAdded();
    daqController.applySynchronization();
    const BasePtr object(self());
    checkErrorInfo(config->setClockProvider(object.asPtr<IClockProvider>().get()));
    if (daqController.loopDevice) {
        checkErrorInfo(config->setLoopProvider(object.asPtr<ILoopProvider>().get()));
    }
    if (daqController.daqTiming) {
        checkErrorInfo(config->setAbsTimeProvider(object.asPtr<IAbsTimeProvider>().get()));
    }
}

void DaqModuleImpl::onInitialize() {
    requireAdded();
    tracking = true;
    timingError = false;
    const auto mode = data.getPropertyValue<int64_t>("OperationMode");
    daqController.operationMode = mode == 2 ? 2 : 1;
    daqController.prepareAcquisition();
    daqStructure.initialize();
}

void DaqModuleImpl::onStart() {
    requireAdded();
    lostSamples_.assign(daqStructure.getChannelsMap().size(), 0);
    asyncChannels_.clear();
    for (size_t i = 0; i < lostSamples_.size(); ++i) {
        if (daqStructure.getChannelsMap()[i].first->sampleType == SampleType::Async) {
            asyncChannels_.push_back(i);
        }
    }
    if (!daqController.acqInitialized) {
        daqStructure.beforeStart();
    }
    daqController.startAcquisition();
}

void DaqModuleImpl::onStop() {
    requireAdded();
    daqController.stopAcquisition();
}

// Cycle.

// What fails in one stage is logged, and the stages behind it still run.
void DaqModuleImpl::onProcessData() {
    requireAdded();
    if (daqController.daqTiming) {
        forceRefreshTrackingAndErrorStatus();
    }
    try {
        daqController.acquireData();
    } catch (const std::exception& exception) {
        LOG_(0, plog::error) << "Exception in DAQ::acquireData: " << textOf(exception);
    }
    try {
        moveAsyncSamplesIn();
    } catch (const std::exception& exception) {
        LOG_(0, plog::error) << "Exception while transfering data from DAQ async channels to RT: " << textOf(exception);
    }
    // The exchange over the routes stands here.
    try {
        moveAsyncSamplesOut();
    } catch (const std::exception& exception) {
        LOG_(0, plog::error) << "Exception while transfering data from RT async channels to DAQ: " << textOf(exception);
    }
    try {
        daqController.sendData();
    } catch (const std::exception& exception) {
        LOG_(0, plog::error) << "Exception in DAQ::sendData: " << textOf(exception);
    }
}

// Passes on what the host's count lacks. A stage that was broken off is made up for in the next cycle, as far as the
// ring still holds the samples.
void DaqModuleImpl::moveAsyncSamplesIn() {
    const auto& channels = daqStructure.getChannelsMap();
    for (const size_t i : asyncChannels_) {
        const auto& [channel, hostChannel] = channels[i];
        if (channel->isControl) {
            continue;
        }
        const AsyncChannelPtr async = hostChannel.asPtr<IAsyncChannel>();
        long held = 0;
        checkErrorInfo(async->getSamplesAcquired(&held));
        int64_t count = static_cast<int64_t>(channel->samplesAcquired.get()) - held;
        if (count <= 0) {
            continue;
        }
        count -= lostSamples_[i];
        const int64_t available =
            channel->timeBuffer
                ? static_cast<int64_t>(std::min(channel->buffer->getSize(), channel->timeBuffer->getSize()))
                : 0;
        if (count > available) {
            lostSamples_[i] += count - available;
            count = available;
        }
        for (int relative = static_cast<int>(-count); relative < 0; ++relative) {
            const double time = channel->getTimeAtRelativePos(relative);
            const void* sample = channel->buffer->getSample(channel->getPosAtRelativePos(relative));
            checkErrorInfo(async->addSample(toTicks(static_cast<double>(clockBase) * time), sample));
        }
    }
}

void DaqModuleImpl::moveAsyncSamplesOut() {
    const auto& channels = daqStructure.getChannelsMap();
    for (const size_t i : asyncChannels_) {
        const auto& [channel, hostChannel] = channels[i];
        // An output that takes no part has no memory.
        if (!channel->isControl || !channel->active) {
            continue;
        }
        const AsyncChannelPtr async = hostChannel.asPtr<IAsyncChannel>();
        long held = 0;
        checkErrorInfo(async->getSamplesAcquired(&held));
        int64_t count = held - static_cast<int64_t>(channel->samplesAcquired.get());
        if (count <= 0) {
            continue;
        }
        count -= lostSamples_[i];
        IChannelBuffer& target = *channel->buffer;
        Core::IChannelBuffer* raw = nullptr;
        checkErrorInfo(async->getBuffer(&raw));
        const ChannelBufferPtr<Core::IChannelBuffer> source(ObjectPtr<Core::IChannelBuffer>::take(raw));
        const int64_t available = static_cast<int64_t>(source.getSize());
        if (count > available) {
            lostSamples_[i] += count - available;
            count = available;
        }
        const int64_t capacity = static_cast<int64_t>(source.getCapacity());
        const int64_t position = static_cast<int64_t>(source.getPosition());
        const size_t sampleSize = target.getSampleSize();
        for (int64_t k = 0; k < count; ++k) {
            // incSamplePosition has the same test, but runs behind the copy.
            if (channel->samplesThisCycle + 1 >= target.getCapacity()) {
                throw DataLostException();
            }
            int64_t place = position - (count - k);
            if (place < 0) {
                place += capacity;
            }
            long timestamp = 0;
            checkErrorInfo(async->getTimestampAtPos(static_cast<size_t>(place), &timestamp));
            void* sample = nullptr;
            checkErrorInfo(async->getSampleAddressAtPos(static_cast<size_t>(place), &sample));
            std::memcpy(target.getSample(target.getPosition()), sample, sampleSize);
            // Both rings start at 0 and advance together, so the time lands at the same index.
            if (channel->timeBuffer && channel->timeBuffer->getCapacity() > 0) {
                channel->addTimeToBuffer(static_cast<double>(timestamp) / static_cast<double>(clockBase));
            }
            channel->incSamplePosition(1);
        }
    }
}

}  // namespace Harvane::RT::Modules::Daq
