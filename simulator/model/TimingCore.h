#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>

#include "simulator/model/Clock.h"
#include "simulator/model/Faults.h"
#include "simulator/model/Instrument.h"
#include "simulator/model/Oscillator.h"
#include "simulator/model/PulseTrain.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

// Offsets and bits of the timing core's block that others know too.
namespace timingblock {
inline constexpr size_t control = 0x00;
inline constexpr size_t frequency = 0x14;
inline constexpr size_t start = 0x18;
inline constexpr size_t countReset = 0x1C;
inline constexpr uint32_t resyncRequest = 1u << 29;
}  // namespace timingblock

// Timing core and IRIG decoder of the FPGA, and the driver that hands out a record for each pulse. The internal second
// is a count of the oscillator modulo 150e6; a pulse of the selected reference is measured against it. Counters and
// flags are brought up to date when somebody looks. Thread-safe; taken behind the FPGA's lock.
class TimingCore {
public:
    static constexpr double never = std::numeric_limits<double>::infinity();
    static constexpr size_t recordSize = 12;

    TimingCore(const Clock& clock, Oscillator& oscillator, Faults& faults, const Scenario& scenario);

    // ---- Registers: offsets in the blocks ----
    void timingStored(size_t offset, uint32_t old, uint32_t value);
    uint32_t timingWord(size_t offset, uint32_t stored) const;
    void irigStored(size_t offset, uint32_t value);
    uint32_t irigWord(size_t offset, uint32_t stored) const;
    // The nominal clock of the converters from now on, Hz; 0 for none.
    void setBaseClock(double hertz);
    // Start trigger in the oscillator's own time, `never` without one.
    double firedAt() const;

    // ---- The oscillator's driver ----
    void setWord(uint16_t word);

    // ---- The driver's node ----
    int open();                                  // 0 or -errno
    ssize_t read(uint8_t* buffer, size_t size);  // bytes, -EAGAIN without a record, or -errno
    bool ready();                                // a record, or an error, waits

    // ---- For tests ----
    void setReference(ReferenceKind kind, const ReferenceScenario& reference);
    TimingState state() const;

private:
    struct Train {
        PulseTrain pulses;
        int64_t next;  // number of the pulse that comes next
    };
    struct Record {
        uint32_t phase = 0;
        uint32_t frequency = 0;
    };

    void advance(double now) const;
    void pulse(int64_t number, double instant) const;
    void emit(uint32_t phase, uint32_t frequency) const;
    std::optional<ReferenceKind> selected() const;
    Train& train(ReferenceKind kind) const { return trains_[static_cast<size_t>(kind)]; }
    bool comes(ReferenceKind kind, int64_t number) const;
    bool ownTiming() const;
    bool lost(double now) const;
    uint32_t count(double own) const;
    void arm(double now);
    void resync(double own) const;

    const Clock& clock_;
    Oscillator& oscillator_;
    Faults& faults_;
    const uint64_t seed_;
    mutable std::mutex mutex_;

    // What was stored.
    uint32_t control_ = 0;
    uint32_t inversions_ = 0;
    uint32_t irigMode_ = 0;
    bool detectorHeld_ = false;
    bool latePulse_ = true;  // PPSDEB is 0: the edge is seen 375 counts late
    uint32_t interrupts_ = 0;
    bool countHeld_ = false;

    mutable std::array<Train, 3> trains_;
    mutable bool resyncWanted_ = false;
    mutable double origin_ = 0.0;          // a second of the internal pulse, in the oscillator's own time
    mutable double lastEdge_ = never;      // own time of the last pulse, `never` unless armed by one
    mutable double lastPulse_ = 0.0;       // instrument time of it, or of the selection
    mutable double nextLossRecord_ = 0.0;  // own time
    mutable uint32_t phase_ = 0;           // magnitude, 28 bits, and the flag of an early second
    mutable uint32_t frequency_ = 0;
    mutable std::optional<Record> waiting_;
    mutable uint32_t number_ = 0;
    mutable uint64_t replaced_ = 0;
    mutable double irigSecond_ = -1.0;  // number of the last second that the decoder gave out
    double irigConfiguredAt_ = never;

    double baseClock_ = 15e6;
    double firedAt_ = never;        // own time
    double countingSince_ = never;  // own time
    uint32_t count_ = 0;            // ticks before that
};

}  // namespace kestrixsim
