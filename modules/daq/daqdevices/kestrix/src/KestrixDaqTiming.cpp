#include "modules/daq/daqdevices/kestrix/src/KestrixDaqTiming.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <thread>
#include <utility>

#include "modules/daq/daqdevices/kestrix/src/FirstFailure.h"
#include "modules/daq/daqdevices/kestrix/src/GpioChipBase.h"
#include "modules/daq/objectmodel/DaqClock.h"
#include "modules/daq/objectmodel/DaqDevice.h"
#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"
#include "shared/libraries/kestrix/src/registers/RegistersAddress.h"

namespace Harvane::RT::Modules::Daq {

namespace RegistersAddress = Shared::Kestrix::RegistersAddress;
using std::chrono::milliseconds;
using Mode = SynchronizationMode;
using State = PlatformPtpControl::STATE;

namespace {

constexpr std::int64_t nominalFrequency = 150000000;  // Hz, of everything that the timing core counts
constexpr int phasePeriodMs = 10;
constexpr milliseconds recordBound{5};
constexpr int ptpPeriodMs = 1000;
constexpr int irigOutputPin = 10;
constexpr std::uint16_t highestControl = 1023;
constexpr std::uint16_t calibratedControl = 506;
constexpr std::uint64_t phaseLimit = 60000;             // 400 us
constexpr std::uint64_t measuringPhaseLimit = 1500000;  // 10 ms
constexpr int measureMode = 2;
constexpr std::int64_t lateEdge = 375;  // counts by which an input without debouncing is seen late
constexpr std::int64_t ptpFrequencyLimit = 50000;
constexpr int ppsToPtpDelayNs = 410;
constexpr std::int64_t largestStepUs = 1000;

// The record's words.
constexpr std::uint32_t phaseBits = 0x00FFFFFF;
constexpr std::uint32_t positiveBits = 0xC0000000;
constexpr std::uint32_t frequencyBits = 0x1FFFFFFF;
constexpr std::uint32_t lossBit = 0x80000000;

template <class Clock>
std::int64_t nanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// A bus that is shared with other chips may refuse for a moment.
template <int attempts, class Call>
auto callWithRetry(Call&& call) {
    for (int attempt = 1;; ++attempt) {
        try {
            return call();
        } catch (const std::exception& exception) {
            KESTRIX_LOG(4, "caught exception: {}", exception.what());
            std::this_thread::sleep_for(milliseconds(1));
            if (attempt == attempts) {
                throw;
            }
        }
    }
}

}  // namespace

KestrixDaqTiming::KestrixDaqTiming(std::shared_ptr<Shared::Kestrix::IRegisterAccess> memoryAccess,
                                   std::shared_ptr<Shared::Kestrix::IRegisterAccess> i2cAccess)
    : maxErrors_(static_cast<double>(nominalFrequency), phaseLimit, 150),
      controller_(1.0,
                  TimeSyncVcxoLmk61e2(static_cast<double>(nominalFrequency), highestControl, calibratedControl, 200.0),
                  maxErrors_),
      timingDevice_(RegistersAddress::timingInteruptFile, [](const std::string& text) { KESTRIX_LOG(4, "{}", text); }),
      memoryAccess_(std::move(memoryAccess)),
      i2cAccess_(std::move(i2cAccess)),
      irigCore_(memoryAccess_, RegistersAddress::irigCoreBaseAddress, true),
      timingCore_(memoryAccess_, RegistersAddress::timingCoreBaseAddress, true),
      vcxoDriver_(i2cAccess_, RegistersAddress::vcxoDriverSlaveAddress, true),
      phaseTimer_(
          phasePeriodMs, [this] { fixPhaseError(); }, phasePeriodMs, Utils::Threading::TimerMode::FromCallbackEnd,
          "phase loop"),
      ptpTimer_(
          ptpPeriodMs, [this] { readPtpState(); }, ptpPeriodMs, Utils::Threading::TimerMode::FromCallbackEnd,
          "PTP poll") {
    timingCore_.PPSDEB.write(false);
    phaseTimer_.start();
    ptpTimer_.start();
}

KestrixDaqTiming::~KestrixDaqTiming() {
    phaseTimer_.stop();
    ptpTimer_.stop();
}

// ---- Option ---------------------------------------------------------------------------------------------------------

void KestrixDaqTiming::clearPreviousSynchronization() {
    previousSynchronization_ = Synchronization();
}

void KestrixDaqTiming::applySynchronization() {
    DaqTiming::applySynchronization();
    const auto device = getDaqDevice();
    const Synchronization wanted = device ? device->appliedSynchronization : Synchronization();
    currentMode_ = static_cast<std::int32_t>(wanted.slaveMode);
    if (wanted.isSynchronizationModeEqual(previousSynchronization_)) {
        return;
    }
    // Until all of it is done, none of it counts as applied.
    clearPreviousSynchronization();
    resetHardware();
    if (!wanted.isStandalone() && wanted.slaveMode != Mode::Ptp && ptpTimer_.getStarted()) {
        ptpTimer_.stop();
    }
    apply(wanted);
    ptpPortLocked_ = false;
    controller_.reset();
    previousSynchronization_ = wanted;
}

void KestrixDaqTiming::resetHardware() {
    timingCore_.DPPLRST.write(true);
    timingCore_.DPPLRST.write(false);
    timingCore_.DIVC.write(15);
    timingCore_.MSTSLV.write(true);
    timingCore_.PDMASK.write(true);
    timingCore_.FQMASK.write(true);
    disciplineEnabled_ = true;
    for (const int pin : {10, 9, 8}) {
        BoardGpio::set(pin, false);
    }
    absTimeSynchronized = false;
}

void KestrixDaqTiming::apply(const Synchronization& wanted) {
    switch (wanted.slaveMode) {
        case Mode::Standalone:
            if (wanted.hasSynchronizationSourceMode(Mode::Ptp)) {
                std::puts("PTP master");
                setPtpSettings(State::PTP_STATE_MASTER_STANDALONE);
                absTimeSynchronized = true;
            } else if (wanted.hasSynchronizationMode(Mode::Irig)) {
                std::puts("IRIG master");
                setTimingCoreIrigMaster();
                setPtpState(State::PTP_STATE_DISABLED_IRIG_OUT, "PTP_STATE_DISABLED_IRIG_OUT");
                disciplineEnabled_ = false;
                absTimeSynchronized = true;
            } else {
                std::printf("Standalone");
                setPtpState(State::PTP_STATE_DISABLED, "PTP_STATE_DISABLED");
            }
            break;
        case Mode::Ptp:
            if (wanted.hasSynchronizationSourceMode(Mode::Irig)) {
                std::puts("PTP slave->IRIG B DC");
                setTimingCoreIrigMaster();
                setPtpState(State::PTP_STATE_SLAVE_IRIG_OUT, "PTP_STATE_SLAVE_IRIG_OUT");
            } else {
                std::puts("PTP");
                setPtpSettings(State::PTP_STATE_SLAVE);
            }
            absTimeSynchronized = true;
            break;
        case Mode::Pps:
            if (wanted.hasSynchronizationSourceMode(Mode::Ptp)) {
                std::puts("PPS->PTP");
                setPtpState(State::PTP_STATE_MASTER, "PTP_STATE_MASTER");
                ptpControl_.setPpsToPtpDelay(ppsToPtpDelayNs);
            } else {
                setPtpState(State::PTP_STATE_DISABLED, "PTP_STATE_DISABLED");
            }
            std::puts("PPS");
            setPpsInput();
            break;
        case Mode::Irig:
            if (wanted.hasSynchronizationSourceMode(Mode::Ptp)) {
                std::puts("IRIG slave->PTP master");
                setPtpSettings(State::PTP_STATE_MASTER);
            } else {
                std::puts("IRIG");
                setPtpState(State::PTP_STATE_DISABLED_IRIG_IN, "PTP_STATE_DISABLED_IRIG_IN");
            }
            setIrigInput();
            absTimeSynchronized = true;
            break;
        default:
            break;
    }
}

// A daemon that can't be switched doesn't keep the instrument from measuring: said and left at that.
void KestrixDaqTiming::setPtpState(State state, const char* shown) {
    bool done = false;
    try {
        done = ptpControl_.setActiveState(state);
    } catch (const std::exception& exception) {
        KESTRIX_LOG(4, "PTP control: {}", exception.what());
    }
    if (!done) {
        KESTRIX_LOG(4, "Could not change PTP state to {}", shown);
    }
}

void KestrixDaqTiming::setPtpSettings(State state) {
    if (!ptpTimer_.getStarted()) {
        ptpTimer_.start();
    }
    setPtpState(state, std::to_string(state).c_str());
    setInput(5, false, true);
}

void KestrixDaqTiming::setTimingCoreIrigMaster() {
    setInput(4, true, true);
    setIrigCore(1);
    BoardGpio::set(irigOutputPin, true);
}

void KestrixDaqTiming::setPpsInput() {
    setInput(1, false, false);
}

void KestrixDaqTiming::setIrigInput() {
    setInput(0, false, true);
    setIrigCore(0);
}

// `pulse`: 0 the decoded one, 1 the platform's.
void KestrixDaqTiming::setIrigCore(std::uint8_t pulse) {
    irigCore_.DCMODE.write(true);
    irigCore_.IRIGTYP.write(1);
    irigCore_.PPSSYNC.write(true);
    irigCore_.PPSREFSEL.write(pulse);
}

// `reference`: 0 the IRIG decoder, 1 the pulse input, 4 the platform's pulse for the IRIG output, 5 the network card,
// whose pulse is active low.
void KestrixDaqTiming::setInput(std::uint8_t reference, bool outputMode, bool debounced) {
    timingCore_.PPSSEL.write(reference);
    timingCore_.TRIGSEL.write(1);
    timingCore_.MSTSLV.write(false);
    timingCore_.TMODE.write(outputMode ? 1 : 0);
    timingCore_.SYNCD.write(false);
    timingCore_.PPSD.write(false);
    if (reference == 5) {
        timingCore_.INVPTPIN.write(true);
    }
    timingCore_.PPSDEB.write(debounced);
}

// ---- Acquisition ----------------------------------------------------------------------------------------------------

void KestrixDaqTiming::initializeAcquisition(bool recursive) {
    DaqTiming::initializeAcquisition(recursive);
    const auto device = getDaqDevice();
    const bool measuring = device && static_cast<int>(device->operationMode) == measureMode;
    maxErrors_.setMaxPhaseError(measuring ? measuringPhaseLimit : phaseLimit);
    timingCore_.CNTRST.write(true);
    timingCore_.CNTRST.write(false);
    if (syncError_) {
        KESTRIX_LOG(3, "RESYNC in progress");
        timingCore_.SYNCPPS.write(true);
    }
    awaitNewSecond();
    if (!device || !device->appliedSynchronization.isOnlyStandalone()) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    const std::lock_guard<std::mutex> guard(startTimeMutex_);
    startTime_ = -1;
}

// Running out of the time is no error: without a reference there is no pulse.
void KestrixDaqTiming::awaitNewSecond() {
    const std::int64_t begun = nanoseconds<std::chrono::steady_clock>();
    while (timingCore_.SYNCPPS.read() && nanoseconds<std::chrono::steady_clock>() - begun <= 1499999999) {
        KESTRIX_LOG(4, "Waiting for PPS resync");
        std::this_thread::sleep_for(milliseconds(100));
    }
}

void KestrixDaqTiming::startTransfer() {
    {
        // What was answered between the counter's reset and now belongs to the run before.
        const std::lock_guard<std::mutex> guard(startTimeMutex_);
        startTime_ = -1;
    }
    syncError_ = false;
    transferStarted_ = true;
    timingCore_.STRTACQ.write(true);
}

void KestrixDaqTiming::stopTransfer() {
    timingCore_.STRTACQ.write(false);
    transferStarted_ = false;
}

void KestrixDaqTiming::abortAcquisition() noexcept {
    DaqTiming::abortAcquisition();
    if (transferStarted_) {
        runQuietly("The start trigger could not be taken back", [this] { stopTransfer(); });
    }
}

std::int64_t KestrixDaqTiming::getCurrentTime(bool& tracking, bool& error) {
    const bool standalone = currentMode_ == static_cast<std::int32_t>(Mode::Standalone);
    tracking = standalone || tracking_;
    error = !standalone && syncError_;
    return nanoseconds<std::chrono::system_clock>() / 1000;
}

std::int64_t KestrixDaqTiming::getStartTime() {
    const std::lock_guard<std::mutex> guard(startTimeMutex_);
    if (startTime_ > 0) {
        return startTime_;
    }
    const auto device = getDaqDevice();
    if (!device || !device->daqClock || !(device->daqClock->getCurrentTime(true) > 0.0)) {
        return -1;
    }
    bool tracking = false;
    bool error = false;
    startTime_ = (getCurrentTime(tracking, error) / 1000 + 500) / 1000 * 1000000;
    return startTime_;
}

// ---- Phase loop -----------------------------------------------------------------------------------------------------

void KestrixDaqTiming::fixPhaseError() {
    TimingDevice::Record record{};
    if (!timingDevice_.read(record, recordBound)) {
        if (timingDevice_.isSilent() && currentMode_ != static_cast<std::int32_t>(Mode::Standalone)) {
            syncError_ = true;
            tracking_ = false;
        }
        return;
    }
    if (!disciplineEnabled_) {
        setVcxoValue(calibratedControl);
        tracking_ = true;
        syncError_ = false;
        publishPulse(false, calibratedControl);
        return;
    }
    const auto magnitude = static_cast<std::int64_t>(record[1] & phaseBits);
    std::int64_t phase = (record[1] & positiveBits) == 0 ? -magnitude : magnitude;
    if (!timingCore_.PPSDEB.read()) {
        phase -= lateEdge;
    }
    signedPhaseError_ = phase;
    std::printf("Signed phase error: %" PRId64 "\n", phase);
    const auto frequency = static_cast<std::int64_t>(record[2] & frequencyBits);
    frequencyError_ = frequency - nominalFrequency;

    long next = 0;
    const bool steered = mayControl(record);
    if (steered) {
        bool localTracking = false;
        next = controller_.getNextPwmAfterPps(readVcxoValue(), phase, frequencyError_, syncError_, localTracking);
        tracking_ = localTracking;
    } else {
        std::puts("Equilibrium");
        next = controller_.getNextPwmAfterSignalLost();
        tracking_ = false;
    }
    vcxoValue_ = static_cast<std::uint16_t>(next);
    detectStep();
    publishPulse(steered, vcxoValue_);
    setVcxoValue(vcxoValue_);
    printIrigTime();
    KESTRIX_LOG(4, "Tracking: {}, Error: {}, VCXValue: {}, Frequency error: {}, Phase error: {}, Frequency: {}\n",
                tracking_.load(), syncError_.load(), vcxoValue_.load(), frequencyError_.load(), magnitude, frequency);
}

void KestrixDaqTiming::publishPulse(bool steered, int controlWord) {
    constexpr double countNs = 1e9 / static_cast<double>(nominalFrequency);
    const std::lock_guard<std::mutex> guard(pulseMutex_);
    ++pulse_.pulses;
    pulse_.pulseTime = nanoseconds<std::chrono::system_clock>() / 1000;
    pulse_.steered = steered;
    pulse_.phaseErrorNs = static_cast<double>(signedPhaseError_) * countNs;
    pulse_.frequencyErrorPpb = static_cast<double>(frequencyError_) * countNs;
    pulse_.controlWord = controlWord;
    pulse_.equilibrium = controller_.getEquilibriumPwm();
}

ClockState KestrixDaqTiming::getClockState() {
    ClockState state;
    {
        const std::lock_guard<std::mutex> guard(pulseMutex_);
        state = pulse_;
    }
    getCurrentTime(state.tracking, state.error);
    const std::lock_guard<std::mutex> guard(identityMutex_);
    state.ptpPort = ptpPort_;
    state.ptpClock = deviceClockUuid_;
    state.ptpGrandmaster = grandmasterClockUuid_;
    return state;
}

bool KestrixDaqTiming::mayControl(const TimingDevice::Record& record) const {
    if (currentMode_ == static_cast<std::int32_t>(Mode::Ptp)) {
        return ptpPortLocked_ && std::abs(frequencyError_.load()) < ptpFrequencyLimit;
    }
    return (record[2] & lossBit) == 0;
}

// The operating system's clock has been set: times before and after don't belong together.
void KestrixDaqTiming::detectStep() {
    const ClockReadings now = readClocks();
    const std::int64_t difference =
        (now.system - lastReadings_.system) / 1000 - (now.steady - lastReadings_.steady) / 1000;
    if (difference > largestStepUs || difference < -largestStepUs) {
        syncError_ = true;
    }
    lastReadings_ = now;
}

// A thread that loses the processor between the two readings would see a step: the system's clock is read between two
// readings of the other, and of a few tries the one counts that took least.
KestrixDaqTiming::ClockReadings KestrixDaqTiming::readClocks() {
    constexpr std::int64_t shortEnough = 20000;  // ns
    constexpr int mostTries = 8;
    ClockReadings best;
    std::int64_t shortest = std::numeric_limits<std::int64_t>::max();
    for (int n = 0; n < mostTries && shortest > shortEnough; ++n) {
        const std::int64_t before = nanoseconds<std::chrono::steady_clock>();
        const std::int64_t system = nanoseconds<std::chrono::system_clock>();
        const std::int64_t took = nanoseconds<std::chrono::steady_clock>() - before;
        if (took < shortest) {
            shortest = took;
            best = {system, before + took / 2};
        }
    }
    return best;
}

void KestrixDaqTiming::printIrigTime() {
    if (!irigCore_.PPSDECODED.read()) {
        return;
    }
    const auto digit = [](auto& field) { return static_cast<int>(field.read()); };
    std::printf("IRIG DECODED %d%d.%d%d.%d%d %d%d%d-%d%d\n", digit(irigCore_.HTENSIN), digit(irigCore_.HONESIN),
                digit(irigCore_.MINTENSIN), digit(irigCore_.MINONESIN), digit(irigCore_.SECTENSIN),
                digit(irigCore_.SECONESIN), digit(irigCore_.DAYSHUNIN), digit(irigCore_.DAYSTENSIN),
                digit(irigCore_.DAYSONESIN), digit(irigCore_.YEARSTENSIN), digit(irigCore_.YEARSONESIN));
}

// High part first: the two registers take effect one by one.
void KestrixDaqTiming::setVcxoValue(std::uint16_t value) {
    const std::uint16_t limited = std::min(value, highestControl);
    callWithRetry<8>([&] {
        vcxoDriver_.R17_XO_BY0.write(static_cast<unsigned char>(limited >> 2));
        vcxoDriver_.R16_XO_BY1.write(static_cast<unsigned char>(limited & 3));
    });
}

std::uint16_t KestrixDaqTiming::readVcxoValue() {
    return callWithRetry<8>([&] {
        vcxoValue_ = static_cast<std::uint16_t>(vcxoDriver_.R17_XO_BY0.read() * 4);
        vcxoValue_ = static_cast<std::uint16_t>(vcxoValue_ | vcxoDriver_.R16_XO_BY1.read());
        return vcxoValue_.load();
    });
}

// ---- PTP poll -------------------------------------------------------------------------------------------------------

void KestrixDaqTiming::readPtpState() {
    const std::lock_guard<std::mutex> guard(ptpMutex_);
    const auto complain = [](PTPApi::ErrorCondition error) {
        KESTRIX_LOG(4, "unable to communicate with PTP daemon, {}", PTPApi::to_string(error));
    };
    if (!ptpApi_) {
        KESTRIX_LOG(3, "starting PTP daemon connection");
        try {
            ptpApi_ = std::make_unique<PTPApi>(PTPApi::Config{});
        } catch (const PTPApi::RuntimeError& failure) {
            KESTRIX_LOG(4, "unable to start PTP daemon connection, {}", failure.what());
            ptpPortLocked_ = false;
            return;
        }
    }
    if (const auto state = ptpApi_->port_state()) {
        KESTRIX_LOG(1, "PTP status: {}", PTPApi::to_string(*state));
        ptpPortLocked_ = *state == PTPApi::PortState::SLAVE || *state == PTPApi::PortState::MASTER;
        showPtpPort(PTPApi::to_string(*state));
    } else {
        complain(state.error());
        showPtpPort(PTPApi::to_string(state.error()));
        ptpPortLocked_ = false;
    }
    const auto local = ptpApi_->port_identity();
    if (!local) {
        complain(local.error());
        return;
    }
    KESTRIX_LOG(1, "PTP local uuid: {}", *local);
    {
        const std::lock_guard<std::mutex> identities(identityMutex_);
        deviceClockUuid_ = *local;
    }
    const auto grandmaster = ptpApi_->gm_identity();
    if (!grandmaster) {
        complain(grandmaster.error());
        return;
    }
    KESTRIX_LOG(1, "PTP grandmaster uuid: {}", *grandmaster);
    const std::lock_guard<std::mutex> identities(identityMutex_);
    grandmasterClockUuid_ = *grandmaster;
}

void KestrixDaqTiming::showPtpPort(std::string text) {
    const std::lock_guard<std::mutex> guard(identityMutex_);
    ptpPort_ = std::move(text);
}

std::string KestrixDaqTiming::getDeviceClockUuid() const {
    const std::lock_guard<std::mutex> guard(identityMutex_);
    return deviceClockUuid_;
}

std::string KestrixDaqTiming::getGrandmasterClockUuid() const {
    const std::lock_guard<std::mutex> guard(identityMutex_);
    return grandmasterClockUuid_;
}

}  // namespace Harvane::RT::Modules::Daq
