#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <vector>

#include "simulator/model/Clock.h"
#include "simulator/model/DmaStream.h"
#include "simulator/model/Faults.h"
#include "simulator/model/Journal.h"
#include "simulator/model/Oscillator.h"
#include "simulator/model/Scenario.h"
#include "simulator/model/TimingCore.h"

namespace kestrixsim {

// The FPGA's register blocks as memory: what is stored has its effect at once, what the hardware moves is computed when
// it is read. No read has an effect of its own. Thread-safe.
class Fpga {
public:
    // `streams[m]`: raw and filtered stream of module m, null where the board has none.
    // `supply`: told of each change of the supply word, before and after, without a lock held that it could need.
    Fpga(const Clock& clock, const Oscillator& oscillator, TimingCore& timing, Faults& faults, Journal& journal,
         std::vector<std::array<DmaStream*, 2>> streams, const Scenario& scenario,
         std::function<void(uint8_t, uint8_t)> supply);

    bool hasBlock(uint64_t physicalAddress, size_t size) const;  // whether a block lies in this piece of memory
    void readWords(uint64_t physicalAddress, uint32_t* words, size_t count) const;
    void storeWord(uint64_t physicalAddress, uint32_t before, uint32_t after);
    void setOscillator(int megahertz);  // what the oscillator was switched to: 15 or 10 fit the PLL
    uint64_t supplySwitches() const;

private:
    static constexpr double never = std::numeric_limits<double>::infinity();

    struct Block {
        uint64_t base;
        std::vector<uint32_t> words;
        std::vector<uint32_t> writable;  // bits that a store reaches
    };

    struct Module {
        double clearedAt = never;  // when the flag of a finished clear rises
        bool clearHeld = false;    // the fault that it never does
        bool running = false;
        bool debugCounter = false;
    };

    enum BlockIndex : size_t { adcBlock = 8, timingBlock, irigBlock, globalBlock, pllBlock, blockCount };

    Block* find(uint64_t physicalAddress);
    uint32_t current(size_t block, size_t offset, double now) const;
    void stored(size_t block, size_t offset, uint32_t old, double now);
    void clearStored(size_t module, uint32_t old, double now);
    void streamsStored(size_t module, uint32_t old);
    void updateRunning(double now);
    void settle(double now) const;
    double baseClock() const;
    uint32_t pllLocks() const;
    void noteClock(const char* part, uint32_t setting);
    uint32_t word(size_t block, size_t offset) const { return blocks_[block].words[offset / 4]; }
    StreamFormat format(size_t module, Stream stream) const;

    const Clock& clock_;
    const Oscillator& oscillator_;
    TimingCore& timing_;
    Faults& faults_;
    Journal& journal_;
    const std::vector<std::array<DmaStream*, 2>> streams_;
    const std::function<void(uint8_t, uint8_t)> supply_;

    mutable std::mutex mutex_;
    mutable std::array<Block, blockCount> blocks_;  // hardware bits are brought up to date when looked at
    mutable std::array<Module, 8> modules_;
    mutable double pllIdleAt_ = -never;
    mutable bool pllHeld_ = false;
    uint32_t locksWithheld_ = 0;  // until the PLL is told something
    int output_ = 15;             // of the oscillator to the PLLs, MHz
    double debugCounterSince_ = never;
    uint64_t supplySwitches_ = 0;
};

}  // namespace kestrixsim
