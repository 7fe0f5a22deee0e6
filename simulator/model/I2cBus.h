#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "simulator/model/Faults.h"
#include "simulator/model/Instrument.h"
#include "simulator/model/Scenario.h"
#include "simulator/model/Thermals.h"

namespace kestrixsim {

// The board's I2C bus and its chips: identity EEPROM 0x50, oscillator driver 0x58, thermometers 0x48 to 0x4A and the
// multiplexer of the amplifier UART at 0x4D and 0x4F. Thread-safe.
class I2cBus {
public:
    // `select`: told which slot the multiplexer connects now, -1 for none. `control`: the oscillator's control word as
    // it is after each write of one of its two registers.
    I2cBus(const Scenario& scenario, Faults& faults, Thermals& thermals, std::function<void(int)> select,
           std::function<void(uint16_t)> control);

    ssize_t write(int address, const uint8_t* data, size_t size);  // bytes or -errno
    ssize_t read(int address, uint8_t* data, size_t size);
    int transfer(I2cMessage* messages, size_t count);  // messages or -errno

    std::array<uint8_t, 256> eeprom() const;

private:
    ssize_t writeLocked(int address, const uint8_t* data, size_t size);
    ssize_t readLocked(int address, uint8_t* data, size_t size, bool multiplexerSilent);
    bool hasThermometer(int address) const;
    ssize_t readThermometer(int address, uint8_t* data, size_t size);
    void updateSelection();
    uint8_t* multiplexer(int address);

    const bool eightSlots_;
    Faults& faults_;
    Thermals& thermals_;
    const std::function<void(int)> select_;
    const std::function<void(uint16_t)> control_;
    mutable std::mutex mutex_;
    std::array<uint8_t, 256> eeprom_{};
    uint8_t eepromAt_ = 0;
    std::array<uint8_t, 256> oscillator_{};
    uint8_t oscillatorAt_ = 0;
    std::array<uint8_t, 3> thermometerAt_{};
    std::array<uint8_t, 3> thermometerMode_{};
    uint8_t multiplexer4d_ = 0;
    uint8_t multiplexer4f_ = 0;
};

}  // namespace kestrixsim
