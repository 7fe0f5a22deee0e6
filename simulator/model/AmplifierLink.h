#pragma once

#include <sys/types.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "simulator/model/Clock.h"
#include "simulator/model/Faults.h"
#include "simulator/model/Firmware.h"
#include "simulator/model/Instrument.h"

namespace kestrixsim {

// The serial line and the eight slots behind the multiplexer. Bytes reach the slot that is selected when they are
// written, and come back one by one, at the line's speed, only from the slot that is selected when they are due.
// Replies take real time, whatever the scenario's time factor: what waits for them does too. Thread-safe.
class AmplifierLink {
public:
    static constexpr int slotCount = 8;
    static constexpr double byteSeconds = 10.0 / 38400.0;  // a byte with its start and stop bit

    // `changed` hears of each slot whose front end differs from before; it must not call back.
    AmplifierLink(const Clock& clock, Faults& faults, std::function<void(int, const FrontEnd&)> changed);

    void plug(int slot, std::unique_ptr<Firmware> firmware);  // null: the slot is empty
    void supply(uint8_t before, uint8_t after, bool atOnce);  // bit i: slot i. `atOnce`: up without a boot
    void select(int slot);                                    // -1: nobody
    ssize_t write(const uint8_t* bytes, size_t size);         // bytes or -errno
    ssize_t read(uint8_t* bytes, size_t size, int timeoutMs);
    void flush();
    std::vector<std::string> framesReceived() const;
    AmplifierState state(int slot) const;
    bool ledOn(int slot) const;

private:
    struct Slot {
        std::unique_ptr<Firmware> firmware;
        FrontEnd frontEnd;  // as told last
        FrameCollector collector;
        bool supplied = false;
        double bootedAt = 0.0;     // instrument time
        double restartedAt = 0.0;  // real time: after a restart by command
    };

    struct Pending {
        int slot;
        double due;  // real time, of the first byte
        std::vector<uint8_t> bytes;
        size_t arrived = 0;

        double nextDue() const { return due + static_cast<double>(arrived) * byteSeconds; }
    };

    bool alive(const Slot& slot) const;
    void takeFrame(int slot, const std::vector<uint8_t>& frame);
    void send(int slot, double due, std::vector<uint8_t> bytes);
    void arrive();
    void tellFrontEnd(int slot);

    const Clock& clock_;
    Faults& faults_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void(int, const FrontEnd&)> frontEndChanged_;
    std::array<Slot, slotCount> slots_;
    int selected_ = -1;
    std::vector<Pending> pending_;  // in the order in which they are due
    std::deque<uint8_t> received_;
    std::vector<std::string> frames_;
};

}  // namespace kestrixsim
