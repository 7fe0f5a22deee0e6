#include "simulator/model/TimingCore.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

#include "simulator/model/Hash.h"

namespace kestrixsim {

namespace {

// Timing block.
constexpr size_t detectorReset = 0x0C;
constexpr size_t phaseWord = 0x10;
constexpr size_t countWord = 0x20;
constexpr size_t maskWord = 0x24;
constexpr size_t inversionWord = 0x2C;
constexpr size_t debounceWord = 0x38;
constexpr size_t freeSeconds = 0x44;
constexpr size_t freeNanoseconds = 0x48;
constexpr uint32_t ownTimingBit = 1u << 8;
constexpr uint32_t invertPtp = 1u << 3;
constexpr uint32_t lossBit = 1u << 31;
constexpr uint32_t earlyBit = 1u << 31;
constexpr uint32_t bothMasks = 3;

// IRIG block.
constexpr size_t irigControl = 0x00;
constexpr size_t irigStatus = 0x20;
constexpr size_t irigTime = 0x24;
constexpr size_t irigYear = 0x28;
constexpr uint32_t irigModeBits = 0x7;   // DCMODE, IRIGTYP
constexpr uint32_t irigModulated = 0x3;  // both 1: what the input is wired for
constexpr uint32_t irigDecoded = 1u << 4;
constexpr uint32_t irigValid = 1u << 3;

constexpr double lateCounts = 375.0;
constexpr double lossAfter = 1.5;       // s without a pulse
constexpr double decoderSettles = 2.0;  // s until two complete frames have been seen
constexpr uint32_t recordPhase = 0x00FFFFFF;
constexpr uint32_t wordPhase = 0x0FFFFFFF;
constexpr uint32_t wordFrequency = 0x1FFFFFFF;

double counts(double own) {
    return std::floor(own * Oscillator::nominal);
}

}  // namespace

TimingCore::TimingCore(const Clock& clock, Oscillator& oscillator, Faults& faults, const Scenario& scenario)
    : clock_(clock),
      oscillator_(oscillator),
      faults_(faults),
      seed_(scenario.seed),
      trains_{Train{{scenario.irig, mix(seed_ + 101), clock.epochFraction()}, 0},
              Train{{scenario.pps, mix(seed_ + 102), clock.epochFraction()}, 0},
              Train{{scenario.ptpPulse, mix(seed_ + 103), clock.epochFraction()}, 0}} {
    for (Train& each : trains_) {
        each.next = each.pulses.firstAfter(0.0);
    }
    // The internal second starts anywhere against the reference's.
    origin_ = symmetric(mix(seed_ + 104)) * 0.5;
}

bool TimingCore::ownTiming() const {
    return (control_ & ownTimingBit) != 0;
}

std::optional<ReferenceKind> TimingCore::selected() const {
    if (ownTiming()) {
        return std::nullopt;
    }
    switch (control_ & 7) {
        case 0:
            return ReferenceKind::Irig;
        case 1:
            return ReferenceKind::Pps;
        case 5:
            // The card's pulse is active low.
            return (inversions_ & invertPtp) != 0 ? std::optional(ReferenceKind::Ptp) : std::nullopt;
        default:
            return std::nullopt;
    }
}

bool TimingCore::comes(ReferenceKind kind, int64_t number) const {
    const Train& each = train(kind);
    if (kind != ReferenceKind::Irig) {
        return each.pulses.comes(number, 0.0);
    }
    return (irigMode_ & irigModeBits) == irigModulated && each.pulses.comes(number, decoderSettles) &&
           each.pulses.time(number) >= irigConfiguredAt_ + decoderSettles;
}

// The detector begins anew: the first pulse arms it.
void TimingCore::arm(double now) {
    lastEdge_ = never;
    lastPulse_ = now;
    nextLossRecord_ = oscillator_.secondsAt(now);
    if (const auto kind = selected()) {
        train(*kind).next = train(*kind).pulses.firstAfter(now);
    }
}

void TimingCore::resync(double own) const {
    origin_ = own;
    resyncWanted_ = false;
}

bool TimingCore::lost(double now) const {
    return !selected() || now - lastPulse_ >= lossAfter;
}

// All pulses and losses up to now, in order.
void TimingCore::advance(double now) const {
    const auto kind = selected();
    if (resyncWanted_ && ownTiming() && !faults_.present(FaultKind::SyncHeld)) {
        resyncWanted_ = false;  // the internal pulse has nothing to be set to
    }
    for (;;) {
        double next = never;
        if (kind) {
            next = train(*kind).pulses.time(train(*kind).next);
        }
        // Without a reference the driver tells of each internal second.
        const double lossFrom = kind ? lastPulse_ + lossAfter : 0.0;
        const double until = std::min(next, now);
        if (until >= lossFrom) {
            const double ownFrom = std::max(oscillator_.secondsAt(lossFrom), nextLossRecord_);
            const double ownUntil = oscillator_.secondsAt(until);
            double second = origin_ + std::ceil(ownFrom - origin_);
            while (second <= ownUntil) {
                phase_ = 0;
                frequency_ = 0;
                lastEdge_ = never;
                emit(0, lossBit);
                nextLossRecord_ = second + 0.5;
                second += 1.0;
            }
        }
        if (next > now) {
            return;
        }
        const int64_t number = train(*kind).next++;
        if (comes(*kind, number)) {
            pulse(number, next);
        }
    }
}

void TimingCore::pulse(int64_t number, double instant) const {
    lastPulse_ = instant;
    if (detectorHeld_) {
        return;
    }
    const double edge = oscillator_.secondsAt(instant) + (latePulse_ ? lateCounts / Oscillator::nominal : 0.0);
    if (selected() == ReferenceKind::Irig) {
        irigSecond_ = static_cast<double>(number);
    }
    if (resyncWanted_ && !faults_.hit(FaultKind::SyncHeld)) {
        resync(edge);
    }
    if (lastEdge_ != never) {
        double away = (edge - origin_) - std::floor(edge - origin_);
        away = away > 0.5 ? away - 1.0 : away;
        const double phi = std::round(away * Oscillator::nominal);
        const auto magnitude = static_cast<uint32_t>(std::abs(phi));
        const uint32_t early = phi > 0.0 ? earlyBit : 0;
        phase_ = std::min(magnitude, wordPhase) | early;
        frequency_ = static_cast<uint32_t>(counts(edge) - counts(lastEdge_)) & wordFrequency;
        emit(std::min(magnitude, recordPhase) | early, frequency_);
    }
    lastEdge_ = edge;
}

void TimingCore::emit(uint32_t phase, uint32_t frequency) const {
    if ((interrupts_ & bothMasks) != bothMasks || faults_.hit(FaultKind::TimingSilent)) {
        return;
    }
    ++number_;
    replaced_ += waiting_ ? 1 : 0;
    waiting_ = Record{phase, frequency};
}

void TimingCore::timingStored(size_t offset, uint32_t old, uint32_t value) {
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    advance(now);
    switch (offset) {
        case timingblock::control:
            control_ = value;
            if (((old ^ value) & (7u | ownTimingBit)) != 0) {
                arm(now);
            }
            break;
        case detectorReset:
            detectorHeld_ = (value & 1) != 0;
            if (value != old) {
                arm(now);
            }
            break;
        case timingblock::frequency:
            resyncWanted_ = resyncWanted_ || (value & ~old & timingblock::resyncRequest) != 0;
            resyncWanted_ = resyncWanted_ && (value & timingblock::resyncRequest) != 0;
            advance(now);
            break;
        case timingblock::start:
            if ((value & ~old & 1) != 0) {
                const double own = oscillator_.secondsAt(now);
                // With the next internal second, unless nothing is followed.
                firedAt_ = ownTiming() ? own : origin_ + std::floor(own - origin_) + 1.0;
                count_ = 0;
                countingSince_ = countHeld_ ? never : firedAt_;
            } else if ((old & ~value & 1) != 0) {
                count_ = count(oscillator_.secondsAt(now));
                countingSince_ = never;
                firedAt_ = never;
            }
            break;
        case timingblock::countReset:
            countHeld_ = (value & 1) != 0;
            count_ = 0;
            countingSince_ = !countHeld_ && firedAt_ != never ? std::max(oscillator_.secondsAt(now), firedAt_) : never;
            break;
        case maskWord:
            interrupts_ = value & bothMasks;
            break;
        case inversionWord:
            if (((old ^ value) & invertPtp) != 0) {
                inversions_ = value;
                arm(now);
            }
            break;
        case debounceWord:
            latePulse_ = (value & 1) == 0;
            break;
        default:
            break;
    }
}

uint32_t TimingCore::timingWord(size_t offset, uint32_t stored) const {
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    advance(now);
    switch (offset) {
        case phaseWord:
            return phase_;
        case timingblock::frequency:
            return frequency_ | (resyncWanted_ ? timingblock::resyncRequest : 0) | (lost(now) ? lossBit : 0);
        case countWord:
            return count(oscillator_.secondsAt(now));
        case freeSeconds:
            return static_cast<uint32_t>(static_cast<uint64_t>(now));
        case freeNanoseconds:
            return static_cast<uint32_t>((now - std::floor(now)) * 1e9);
        default:
            return stored;
    }
}

void TimingCore::irigStored(size_t offset, uint32_t value) {
    if (offset != irigControl) {
        return;
    }
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    advance(now);
    if ((irigMode_ & irigModeBits) != (value & irigModeBits)) {
        irigConfiguredAt_ = now;
        irigSecond_ = -1.0;
    }
    irigMode_ = value;
}

uint32_t TimingCore::irigWord(size_t offset, uint32_t stored) const {
    if (offset < irigStatus) {
        return stored;
    }
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    advance(now);
    const bool decoded = selected() == ReferenceKind::Irig && !lost(now) && irigSecond_ >= 0.0;
    if (offset == irigStatus) {
        const double part = now - lastPulse_;
        const auto milliseconds = static_cast<uint32_t>(std::clamp(part, 0.0, 0.999) * 1e3);
        return decoded ? milliseconds << 16 | irigDecoded | irigValid : 0;
    }
    if (irigSecond_ < 0.0) {
        return 0;
    }
    const auto second = static_cast<time_t>(clock_.epochSeconds() + static_cast<int64_t>(irigSecond_));
    tm parts{};
    gmtime_r(&second, &parts);
    const auto digits = [](int value) { return static_cast<uint32_t>(value / 10 << 4 | value % 10); };
    if (offset == irigYear) {
        return digits(parts.tm_year % 100);
    }
    if (offset != irigTime) {
        return stored;
    }
    const int day = parts.tm_yday + 1;
    const auto hours = static_cast<uint32_t>(parts.tm_hour);
    return static_cast<uint32_t>(day / 100) << 28 | digits(day % 100) << 20 | (hours / 10) << 18 | (hours % 10) << 14 |
           digits(parts.tm_min) << 7 | digits(parts.tm_sec);
}

// Before the clock changes: what it has counted stays.
void TimingCore::setBaseClock(double hertz) {
    const std::lock_guard lock(mutex_);
    const double own = oscillator_.secondsAt(clock_.seconds());
    if (own > countingSince_) {
        count_ = count(own);
        countingSince_ = own;
    }
    baseClock_ = hertz;
}

double TimingCore::firedAt() const {
    const std::lock_guard lock(mutex_);
    return firedAt_;
}

uint32_t TimingCore::count(double own) const {
    if (own <= countingSince_) {
        return count_;
    }
    return count_ + static_cast<uint32_t>(static_cast<uint64_t>((own - countingSince_) * baseClock_));
}

void TimingCore::setWord(uint16_t word) {
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    advance(now);
    oscillator_.setWord(word, now);
}

int TimingCore::open() {
    return openFault(faults_.hit(FaultKind::TimingOpen));
}

bool TimingCore::ready() {
    const std::lock_guard lock(mutex_);
    advance(clock_.seconds());
    return waiting_.has_value() || faults_.present(FaultKind::TimingRead);
}

ssize_t TimingCore::read(uint8_t* buffer, size_t size) {
    const std::lock_guard lock(mutex_);
    advance(clock_.seconds());
    if (const auto fault = faults_.hit(FaultKind::TimingRead)) {
        return fault->code == 0 ? -EIO : -fault->code;
    }
    if (!waiting_) {
        return -EAGAIN;
    }
    const uint32_t words[3] = {number_, waiting_->phase, waiting_->frequency};
    const size_t given = std::min({size, recordSize, faults_.hit(FaultKind::TimingShortRead) ? size_t{8} : recordSize});
    waiting_.reset();
    std::memcpy(buffer, words, given);
    return static_cast<ssize_t>(given);
}

void TimingCore::setReference(ReferenceKind kind, const ReferenceScenario& reference) {
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    advance(now);
    Train& changed = train(kind);
    changed.pulses = {reference, mix(seed_ + 101 + static_cast<uint64_t>(kind)), clock_.epochFraction()};
    changed.next = changed.pulses.firstAfter(now);
}

TimingState TimingCore::state() const {
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    advance(now);
    TimingState result;
    result.controlWord = oscillator_.word();
    result.oscillatorPpm = (oscillator_.pull() - 1.0) * 1e6;
    result.records = number_;
    result.recordsReplaced = replaced_;
    result.reference = !lost(now);
    const double since = oscillator_.secondsAt(now) - origin_;
    result.nextSecond = (1.0 - (since - std::floor(since))) / oscillator_.pull();
    if (const auto kind = selected()) {
        const PulseTrain& pulses = train(*kind).pulses;
        const double own = oscillator_.secondsAt(pulses.idealTime(pulses.firstAfter(now) - 1));
        const double away = (own - origin_) - std::floor(own - origin_);
        result.phaseSeconds = away > 0.5 ? away - 1.0 : away;
    }
    return result;
}

}  // namespace kestrixsim
