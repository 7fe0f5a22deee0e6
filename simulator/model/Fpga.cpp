#include "simulator/model/Fpga.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

namespace kestrixsim {

namespace {

// Module block.
constexpr size_t filterCentre = 0x80;
constexpr size_t filterType = 0x90;
constexpr size_t ratioLow = 0x100;
constexpr size_t ratioHigh = 0x104;
constexpr size_t halfBands = 0x108;
constexpr size_t decimation = 0x10C;
constexpr size_t clearWord = 0x120;
constexpr size_t enableWord = 0x124;
constexpr size_t lengthWord = 0x130;
constexpr uint32_t clearRequest = 1u << 0;
constexpr uint32_t clearDone = 1u << 1;
constexpr uint32_t filteredEnable = 1u << 0;
constexpr uint32_t rawEnable = 1u << 1;

// ADC control.
constexpr size_t adcEnable = 0x00;
constexpr size_t triggerWord = 0x04;
constexpr size_t debugWord = 0x78;
constexpr uint32_t debugRuns = 1u << 16;
constexpr uint32_t debugHeld = 1u << 17;

// Global control.
constexpr size_t supplyWord = 0x10;
constexpr uint32_t version = 0x00010000;

// PLL.
constexpr uint32_t pllBusy = 1u << 0;
constexpr uint32_t pllLock0 = 1u << 4;
constexpr uint32_t pllLock1 = 1u << 8;

constexpr double clearSeconds = 0.002;
constexpr double pllSeconds = 0.020;

struct Range {
    size_t first;
    size_t last;
    uint32_t writable;
};

std::vector<uint32_t> masks(size_t size, std::initializer_list<Range> ranges) {
    std::vector<uint32_t> result(size / 4, 0);
    for (const Range& range : ranges) {
        for (size_t offset = range.first; offset <= range.last; offset += 4) {
            result[offset / 4] = range.writable;
        }
    }
    return result;
}

constexpr uint32_t allBits = 0xFFFFFFFF;

}  // namespace

Fpga::Fpga(const Clock& clock, const Oscillator& oscillator, TimingCore& timing, Faults& faults, Journal& journal,
           std::vector<std::array<DmaStream*, 2>> streams, const Scenario& scenario,
           std::function<void(uint8_t, uint8_t)> supply)
    : clock_(clock),
      oscillator_(oscillator),
      timing_(timing),
      faults_(faults),
      journal_(journal),
      streams_(std::move(streams)),
      supply_(std::move(supply)) {
    const auto module = masks(0x134, {{0x00, filterCentre, 0x07FFFFFF},
                                      {filterType, filterType, 0x1},
                                      {ratioLow, ratioLow, allBits},
                                      {ratioHigh, ratioHigh, 0x3F},
                                      {halfBands, halfBands, 0x1F},
                                      {decimation, 0x114, allBits},
                                      {0x118, 0x118, 0x3FFF},
                                      {0x11C, 0x11C, 0xF},
                                      {clearWord, clearWord, 0x3},
                                      {enableWord, enableWord, 0x3},
                                      {0x128, 0x128, 0xF},
                                      {0x12C, 0x12C, 0xC003FFFF},
                                      {lengthWord, lengthWord, allBits}});
    for (size_t m = 0; m < 8; ++m) {
        blocks_[m] = {0xA0000000 + (static_cast<uint64_t>(m) << 16), {}, module};
    }
    blocks_[adcBlock] = {0xA0200000,
                         {},
                         masks(0x80, {{adcEnable, adcEnable, 0x1},
                                      {triggerWord, triggerWord, 0xFFFF},
                                      {0x08, 0x08, allBits},
                                      {0x0C, 0x14, 0x1},
                                      {debugWord, debugWord, 0xFF030000},
                                      {0x7C, 0x7C, 0xF}})};
    blocks_[timingBlock] = {0xA3000000,
                            {},
                            masks(0x4C, {{timingblock::control, timingblock::control, 0x00033137},
                                         {0x04, 0x08, allBits},
                                         {0x0C, 0x0C, 0x1},
                                         {timingblock::frequency, timingblock::frequency, timingblock::resyncRequest},
                                         {timingblock::start, timingblock::countReset, 0x1},
                                         {0x24, 0x24, 0x3},
                                         {0x28, 0x28, allBits},
                                         {0x2C, 0x2C, 0x1F},
                                         {0x38, 0x40, allBits}})};
    blocks_[irigBlock] = {
        0xA3800000, {}, masks(0x2C, {{0x00, 0x00, 0xDF}, {0x04, 0x04, 0x3FFFFFFF}, {0x08, 0x08, 0xFF}})};
    blocks_[globalBlock] = {
        0xA6000000, {}, masks(0x14, {{0x04, 0x04, 0x1}, {0x08, 0x0C, 0x3F}, {supplyWord, supplyWord, 0xFF}})};
    blocks_[pllBlock] = {0xB0000000, {}, masks(0x04, {{0x00, 0x00, 0x7}})};
    for (Block& block : blocks_) {
        block.words.assign(block.writable.size(), 0);
    }
    blocks_[globalBlock].words[0] = version;
    blocks_[pllBlock].words[0] = static_cast<uint32_t>(scenario.pll.selection) << 1;
    output_ = scenario.pll.selection == 1 ? 10 : 15;
    locksWithheld_ = (scenario.pll.lock0 ? 0 : pllLock0) | (scenario.pll.lock1 ? 0 : pllLock1);
    if (scenario.supplyOn) {
        blocks_[globalBlock].words[supplyWord / 4] = 0xFF;
    }
    timing_.setBaseClock(baseClock());
}

bool Fpga::hasBlock(uint64_t physicalAddress, size_t size) const {
    return std::any_of(blocks_.begin(), blocks_.end(), [&](const Block& block) {
        return physicalAddress < block.base + 4 * block.words.size() && block.base < physicalAddress + size;
    });
}

void Fpga::readWords(uint64_t physicalAddress, uint32_t* words, size_t count) const {
    std::fill_n(words, count, 0u);
    const uint64_t end = physicalAddress + 4 * static_cast<uint64_t>(count);
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    settle(now);
    for (size_t b = 0; b < blockCount; ++b) {
        const Block& block = blocks_[b];
        const uint64_t first = std::max(block.base, physicalAddress);
        const uint64_t last = std::min(block.base + 4 * block.words.size(), end);
        for (uint64_t address = first; address < last; address += 4) {
            words[(address - physicalAddress) / 4] = current(b, address - block.base, now);
        }
    }
}

void Fpga::storeWord(uint64_t physicalAddress, uint32_t before, uint32_t after) {
    uint8_t supplyBefore = 0;
    uint8_t supplyAfter = 0;
    {
        const std::lock_guard lock(mutex_);
        const double now = clock_.seconds();
        settle(now);
        for (size_t b = 0; b < blockCount; ++b) {
            Block& block = blocks_[b];
            if (physicalAddress < block.base || physicalAddress >= block.base + 4 * block.words.size()) {
                continue;
            }
            const size_t offset = physicalAddress - block.base;
            uint32_t& live = block.words[offset / 4];
            const uint32_t old = live;
            // A bit that the hardware moved since the page was handed out stays as it is now.
            const uint32_t changed = (before ^ after) & block.writable[offset / 4];
            if (changed == 0) {
                continue;
            }
            live = (live & ~changed) | (after & changed);
            stored(b, offset, old, now);
            if (b == globalBlock && offset == supplyWord) {
                supplyBefore = static_cast<uint8_t>(old);
                supplyAfter = static_cast<uint8_t>(live);
                if (supplyBefore != supplyAfter) {
                    ++supplySwitches_;
                    journal_.note("supply " + std::to_string(supplyAfter));
                }
            }
        }
    }
    if (supplyBefore != supplyAfter) {
        supply_(supplyBefore, supplyAfter);
    }
}

void Fpga::setOscillator(int megahertz) {
    const std::lock_guard lock(mutex_);
    const double now = clock_.seconds();
    settle(now);
    output_ = megahertz;
    noteClock("oscillator", static_cast<uint32_t>(megahertz));
    updateRunning(now);
}

uint64_t Fpga::supplySwitches() const {
    const std::lock_guard lock(mutex_);
    return supplySwitches_;
}

// Brings the bits up to date that the hardware moves by itself.
void Fpga::settle(double now) const {
    for (size_t m = 0; m < modules_.size(); ++m) {
        Module& module = modules_[m];
        if (module.clearHeld && !faults_.present(FaultKind::ClearNever, static_cast<int>(m))) {
            module.clearHeld = false;
        }
        if (now >= module.clearedAt && !module.clearHeld) {
            blocks_[m].words[clearWord / 4] |= clearDone;
            module.clearedAt = never;
        }
    }
    if (pllHeld_ && !faults_.present(FaultKind::PllBusy)) {
        pllHeld_ = false;
    }
    if (now >= pllIdleAt_ && !pllHeld_) {
        blocks_[pllBlock].words[0] &= ~pllBusy;
    }
}

uint32_t Fpga::current(size_t block, size_t offset, double now) const {
    uint32_t value = word(block, offset);
    if (block == adcBlock && offset == triggerWord) {
        for (size_t m = 0; m < modules_.size(); ++m) {
            const bool fired = (value >> m & 1) != 0 || oscillator_.secondsAt(now) >= timing_.firedAt();
            value |= modules_[m].running && fired ? 1u << (16 + m) : 0u;
        }
    } else if (block == adcBlock && offset == debugWord) {
        if (now > debugCounterSince_ && (value & debugHeld) == 0) {
            value |= static_cast<uint32_t>(
                static_cast<uint64_t>((now - debugCounterSince_) * baseClock() * oscillator_.pull()) & 0xFFFF);
        }
    } else if (block == timingBlock) {
        value = timing_.timingWord(offset, value);
    } else if (block == irigBlock) {
        value = timing_.irigWord(offset, value);
    } else if (block == pllBlock) {
        value |= (value & pllBusy) == 0 ? pllLocks() : 0u;
    }
    return value;
}

// Both PLLs lock when the oscillator fits what they were told.
uint32_t Fpga::pllLocks() const {
    const uint32_t selection = word(pllBlock, 0) >> 1 & 3;
    const bool fits = (output_ == 15 && selection == 0) || (output_ == 10 && selection == 1);
    return fits ? (pllLock0 | pllLock1) & ~locksWithheld_ : 0u;
}

// The nominal frequency that the converters run at: none without both locks.
double Fpga::baseClock() const {
    return pllLocks() == (pllLock0 | pllLock1) ? output_ * 1e6 : 0.0;
}

void Fpga::noteClock(const char* part, uint32_t setting) {
    journal_.note(std::string(part) + " " + std::to_string(setting) +
                  ((word(globalBlock, supplyWord) & 0xFF) != 0 ? " under supply" : ""));
}

void Fpga::stored(size_t block, size_t offset, uint32_t old, double now) {
    if (block < 8 && offset == clearWord) {
        clearStored(block, old, now);
    } else if (block < 8 && offset == enableWord) {
        streamsStored(block, old);
    } else if (block == adcBlock && (offset == adcEnable || offset == triggerWord)) {
        if (offset == adcEnable && word(block, offset) != old) {
            journal_.note(word(block, offset) != 0 ? "converters on" : "converters off");
        }
        updateRunning(now);
    } else if (block == adcBlock && offset == debugWord) {
        const uint32_t value = word(block, offset);
        const bool counts = (value & debugRuns) != 0 && (value & debugHeld) == 0;
        if (!counts) {
            debugCounterSince_ = never;
        } else if (debugCounterSince_ == never) {
            debugCounterSince_ = now;
        }
        updateRunning(now);
    } else if (block == timingBlock) {
        timing_.timingStored(offset, old, word(block, offset));
        if (offset == timingblock::frequency) {
            blocks_[block].words[offset / 4] = 0;  // the core keeps the request, and ends it
        }
        if (offset == timingblock::start && word(block, offset) != old) {
            updateRunning(now);
        }
    } else if (block == irigBlock) {
        timing_.irigStored(offset, word(block, offset));
    } else if (block == pllBlock) {
        const uint32_t value = word(block, offset);
        locksWithheld_ = 0;
        noteClock("pll", value >> 1 & 3);
        if ((value & pllBusy) != 0 && (old & pllBusy) == 0) {
            pllIdleAt_ = now + pllSeconds;
            pllHeld_ = faults_.hit(FaultKind::PllBusy).has_value();
        }
        updateRunning(now);
    }
}

// The chain is emptied at once when the request comes, and when the report of the last clear is taken back while the
// request still stands; the report follows. So the request need not fall between two clears.
void Fpga::clearStored(size_t m, uint32_t old, double now) {
    const uint32_t value = word(m, clearWord);
    const bool requested = (value & clearRequest) != 0 && (old & clearRequest) == 0;
    const bool again = (value & clearRequest) != 0 && (value & clearDone) == 0 && (old & clearDone) != 0;
    if ((value & clearRequest) == 0) {
        modules_[m].clearedAt = never;
    }
    if (!requested && !again) {
        return;
    }
    journal_.note("clear " + std::to_string(m));
    const auto late = faults_.hit(FaultKind::ClearLate, static_cast<int>(m));
    modules_[m].clearedAt = now + clearSeconds + (late ? late->code * 0.001 : 0.0);
    modules_[m].clearHeld = faults_.hit(FaultKind::ClearNever, static_cast<int>(m)).has_value();
    if (m < streams_.size()) {
        for (DmaStream* stream : streams_[m]) {
            stream->flush();
        }
    }
}

StreamFormat Fpga::format(size_t m, Stream stream) const {
    const double pull = oscillator_.pull();
    // Latched without a clock the stream has the usual one's numbers; it cannot run before there is a clock.
    const double base = (baseClock() > 0.0 ? baseClock() : 15e6) * pull;
    StreamFormat result;
    if (stream == Stream::Raw) {
        result = StreamFormat::raw(base, word(m, decimation), word(m, lengthWord));
    } else {
        HalfBand filter;
        for (size_t k = 0; k < filter.coefficients.size(); ++k) {
            // 27 bits, two's complement.
            filter.coefficients[k] = static_cast<int32_t>(word(m, 4 * k) << 5) >> 5;
        }
        const uint64_t ratio = static_cast<uint64_t>(word(m, ratioHigh)) << 32 | word(m, ratioLow);
        result = StreamFormat::lowPassed(base, ratio, word(m, halfBands), filter);
    }
    result.pull = pull;
    return result;
}

void Fpga::streamsStored(size_t m, uint32_t old) {
    if (m >= streams_.size()) {
        return;
    }
    const uint32_t value = word(m, enableWord);
    const auto apply = [&](Stream stream, uint32_t bit) {
        if (((value ^ old) & bit) != 0) {
            journal_.note((stream == Stream::Raw ? "raw " : "filtered ") + std::to_string(m) +
                          ((value & bit) != 0 ? " on" : " off"));
        }
        DmaStream& target = *streams_[m][stream == Stream::Raw ? 0 : 1];
        if ((value & ~old & bit) != 0) {
            target.enable(format(m, stream));
        } else if ((old & ~value & bit) != 0) {
            target.disable();
        }
    };
    apply(Stream::Raw, rawEnable);
    apply(Stream::Filtered, filteredEnable);
}

void Fpga::updateRunning(double now) {
    timing_.setBaseClock(baseClock());
    const double own = oscillator_.secondsAt(now);
    const double firedAt = timing_.firedAt();
    const double pull = oscillator_.pull();
    const uint32_t trigger = word(adcBlock, triggerWord);
    const uint32_t debug = word(adcBlock, debugWord);
    const bool converters = (word(adcBlock, adcEnable) & 1) != 0;
    const bool clocked = baseClock() > 0.0;
    for (size_t m = 0; m < modules_.size(); ++m) {
        Module& module = modules_[m];
        const bool counter = !converters && debugCounterSince_ != never && (debug >> (24 + m) & 1) != 0;
        const bool manual = (trigger >> m & 1) != 0;
        const bool triggered = (trigger >> (8 + m) & 1) != 0 && firedAt != never;
        const bool run = clocked && (converters || counter) && (manual || triggered);
        if (run == module.running && counter == module.debugCounter) {
            continue;
        }
        module.running = run;
        module.debugCounter = counter;
        if (m >= streams_.size()) {
            continue;
        }
        for (DmaStream* stream : streams_[m]) {
            if (run) {
                stream->run(manual ? own : std::max(own, firedAt), counter, baseClock() * pull, pull);
            } else {
                stream->halt();
            }
        }
    }
}

}  // namespace kestrixsim
