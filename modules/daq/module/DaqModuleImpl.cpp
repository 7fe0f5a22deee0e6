#include "modules/daq/module/DaqModuleImpl.h"

#include <exception>

#include "modules/daq/module/LoggerConnection.h"
#include "modules/daq/objectmodel/DaqLoop.h"
#include "modules/daq/objectmodel/DaqTiming.h"
#include "modules/daq/objectmodel/Log.h"
#include "modules/daq/objectmodel/SystemDevice.h"

namespace Harvane::RT::Modules::Daq {

using namespace Core;

DaqModuleImpl::DaqModuleImpl() : daqStructure(controller()) {}

DaqModuleImpl::~DaqModuleImpl() {
    // A loop that the host forgot to stop must not call into what is going.
    if (loopProc) {
        DaqModuleImpl::stopLoop();
    }
}

// Clock.

ErrCode DaqModuleImpl::getUnit(IString** unit) {
    return unit == nullptr ? plainError(Errors::ArgumentNull) : createString(unit, "s");
}

ErrCode DaqModuleImpl::getClockBase(IRatio** base) {
    return base == nullptr ? plainError(Errors::ArgumentNull) : createRatio(base, 1, clockBase);
}

ErrCode DaqModuleImpl::getResolution(IRatio** resolution) {
    return getClockBase(resolution);
}

ErrCode DaqModuleImpl::getCurrentClock(long* ticks) {
    if (ticks == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] { *ticks = toTicks(static_cast<double>(clockBase) * daqController.getCurrentTime()); });
}

ErrCode DaqModuleImpl::getAcquiredClock(long* ticks) {
    if (ticks == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    const double samples = static_cast<double>(daqController.maxSamplesAcquired.get());
    *ticks = toTicks(samples / daqController.sampleRate * static_cast<double>(clockBase));
    return Errors::Success;
}

// Absolute time.

ErrCode DaqModuleImpl::getStartAbsTime(long* microseconds) {
    if (microseconds == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] {
        const auto timing = daqController.timeSources().timing;
        *microseconds = timing ? timing->getStartTime() : -1;
    });
}

ErrCode DaqModuleImpl::getCurrentAbsTime(long* microseconds) {
    if (microseconds == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&] {
        const auto timing = daqController.timeSources().timing;
        *microseconds = timing ? readAbsTime(*timing) : -1;
    });
}

// A device that can't tell the time follows nothing and is in error.
int64_t DaqModuleImpl::readAbsTime(DaqTiming& timing) {
    bool isTracking = true;
    bool hasError = false;
    try {
        const int64_t time = timing.getCurrentTime(isTracking, hasError);
        timingError = hasError;
        tracking = isTracking;
        return time;
    } catch (...) {
        timingError = true;
        tracking = false;
        throw;
    }
}

ErrCode DaqModuleImpl::getTracking(TrackingEnum* trackingState) {
    if (trackingState == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *trackingState = tracking ? TrackingEnum::Yes : TrackingEnum::No;
    return Errors::Success;
}

ErrCode DaqModuleImpl::getTimingError(TimingErrorEnum* error) {
    if (error == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *error = timingError ? TimingErrorEnum::Yes : TimingErrorEnum::No;
    return Errors::Success;
}

ErrCode DaqModuleImpl::getIsAbsTimeSynchronized(unsigned char* synchronized) {
    if (synchronized == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    const auto timing = daqController.timeSources().timing;
    *synchronized = timing && timing->absTimeSynchronized ? 1 : 0;
    return Errors::Success;
}

// Told once for each cause, and when it is over. No other thread changes the timing device while a cycle runs.
void DaqModuleImpl::forceRefreshTrackingAndErrorStatus() {
    std::string failure;
    try {
        readAbsTime(*daqController.daqTiming);
    } catch (const std::exception& exception) {
        failure = textOf(exception);
    }
    if (failure.empty() && !timingFaults_->isFailing()) {
        return;
    }
    const std::string text = timingFaults_->after(failure, Utils::FaultReport::Clock::now());
    if (!text.empty()) {
        LOG_(0, plog::error) << text;
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
        return plainError(Errors::ArgumentNull);
    }
    const auto& loop = daqController.loopDevice;
    *milliseconds = loop && loop->cycleRate != 0 ? 1000 / loop->cycleRate : 0;
    return Errors::Success;
}

// Lifecycle.

void DaqModuleImpl::onAdd(const ModuleAddParamsPtr& params) {
    requireStep(daqController, AcquisitionStep::Add);
    if (daqStructure.isBuilt()) {
        throw InvalidStateException(
            "\"add\" is refused: adding this module has failed half-way, and what it has put into "
            "the host's tree can't be repaired. It takes a new module.");
    }
    connectLogger();
    if (!dataModule) {
        throw InvalidParameterException("The module needs a data module to build its tree in.");
    }
    try {
        daqRTOperation = std::make_unique<DaqRTOperation>(daqStructure, data);
        daqController.initialize();
        daqController.scan();
        daqController.initializeHardware();
        daqStructure.buildDataModuleProps(dataModule);
        daqStructure.buildDeviceTree(daqController.systemDevice, dataModule.getRootFolder(),
                                     params.getAcquisitionSync());
        asyncExchange_.registerLosses(daqStructure.getChannelsMap(), daqStructure.hooks());
    } catch (...) {
        daqStructure.forget();
        daqController.reset();
        daqRTOperation.reset();
        throw;
    }
}

void DaqModuleImpl::onConfigure(const ModuleConfigPtr& config) {
    requireStep(daqController, AcquisitionStep::Configure);
    daqStructure.applySynchronization();
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
    requireStep(daqController, AcquisitionStep::Initialize);
    prepare();
}

void DaqModuleImpl::prepare() {
    tracking = true;
    timingError = false;
    const auto mode = data.getPropertyValue<int64_t>("OperationMode");
    daqController.operationMode = mode == 2 ? 2 : 1;
    daqController.prepareAcquisition();
    daqStructure.initialize();
    daqRTOperation->prepareAcquisition(exchangeRate());
}

// Cycles per second, 0 when nobody knows.
int DaqModuleImpl::exchangeRate() const {
    if (daqController.loopDevice) {
        return daqController.loopDevice->cycleRate;
    }
    const long cycleTimeMs = data.getCycleTimeMs();
    return cycleTimeMs == 0 ? 0 : static_cast<int>(1000 / cycleTimeMs);
}

// Once more for the coming run: ranges and scales that the routes go by have only come into force now, and a route may
// have been replaced.
void DaqModuleImpl::prepareRoutes() {
    try {
        daqRTOperation->prepareAcquisition(exchangeRate());
        daqRTOperation->tellRemarks();
    } catch (...) {
        daqController.invalidate();
        throw;
    }
}

// What has been changed since the last set-up counts: everything that depends on it is done anew.
void DaqModuleImpl::setUpRun() {
    daqStructure.applySynchronization();
    prepare();
    daqStructure.beforeStart();
}

void DaqModuleImpl::onStart() {
    requireStep(daqController, AcquisitionStep::Start);
    if (!daqController.acqInitialized() || !daqStructure.isCurrent()) {
        setUpRun();
    }
    prepareRoutes();
    asyncExchange_.prepare(daqStructure.getChannelsMap());
    timingFaults_.emplace("The timing device");
    for (size_t i = 0; i < stageCount; ++i) {
        stageFaults_[i].emplace(stages[i].failure, stages[i].name);
    }
    daqController.startAcquisition();
}

void DaqModuleImpl::onStop() {
    requireStep(daqController, AcquisitionStep::Stop);
    struct AtTheEnd {
        HostRates& rates;
        ~AtTheEnd() { rates.takeWrittenInRun(); }
    } const atTheEnd{daqStructure.rates()};
    daqController.stopAcquisition();
}

// ---- Cycle ----------------------------------------------------------------------------------------------------------

// What fails in one stage is logged, and the stages behind it still run.
const DaqModuleImpl::Stage DaqModuleImpl::stages[stageCount] = {
    {"DAQ::acquireData", "Exception in DAQ::acquireData: ", &DaqModuleImpl::acquireData},
    {"The transfer of data from DAQ async channels to RT",
     "Exception while transfering data from DAQ async channels to RT: ", &DaqModuleImpl::receiveAsyncSamples},
    {"Daq::processData", "Exception in Daq::processData: ", &DaqModuleImpl::processRoutes, "\n"},
    {"The transfer of data from RT async channels to DAQ",
     "Exception while transfering data from RT async channels to DAQ: ", &DaqModuleImpl::sendAsyncSamples},
    {"DAQ::sendData", "Exception in DAQ::sendData: ", &DaqModuleImpl::sendData},
};

void DaqModuleImpl::onProcessData() {
    requireStep(daqController, AcquisitionStep::ProcessData);
    if (daqController.daqTiming) {
        forceRefreshTrackingAndErrorStatus();
    }
    for (size_t i = 0; i < stageCount; ++i) {
        runStage(i);
    }
}

void DaqModuleImpl::runStage(size_t stage) {
    try {
        const auto run = stages[stage].run;
        (this->*run)();
        if (stageFaults_[stage]->isFailing()) {
            tellStage(stage, {});
        }
    } catch (const std::exception& exception) {
        const std::string text = textOf(exception);
        tellStage(stage, text.empty() ? "without a text" : text);
    }
}

// A stage that fails in every cycle would fill the log, so that changes are told.
void DaqModuleImpl::tellStage(size_t stage, const std::string& failure) {
    const std::string text = stageFaults_[stage]->after(failure, Utils::FaultReport::Clock::now());
    if (!text.empty()) {
        LOG_(0, plog::error) << text << (failure.empty() ? "" : stages[stage].end);
    }
}

void DaqModuleImpl::acquireData() {
    daqController.acquireData();
}

void DaqModuleImpl::receiveAsyncSamples() {
    asyncExchange_.receive();
}

void DaqModuleImpl::processRoutes() {
    daqRTOperation->processData();
}

void DaqModuleImpl::sendAsyncSamples() {
    asyncExchange_.send();
}

void DaqModuleImpl::sendData() {
    daqController.sendData();
}

}  // namespace Harvane::RT::Modules::Daq
