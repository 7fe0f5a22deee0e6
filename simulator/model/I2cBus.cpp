#include "simulator/model/I2cBus.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <utility>

namespace kestrixsim {

namespace {

constexpr int eepromAddress = 0x50;
constexpr int oscillatorAddress = 0x58;
constexpr int firstThermometer = 0x48;
constexpr int lastThermometer = 0x4A;
constexpr uint8_t wordHigh = 0x11;
constexpr uint8_t wordLow = 0x10;

template <typename Bytes>
void bigEndian(Bytes& bytes, size_t at, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        bytes[at + i] = static_cast<uint8_t>(value >> (8 * (size - 1 - i)));
    }
}

}  // namespace

I2cBus::I2cBus(const Scenario& scenario, Faults& faults, Thermals& thermals, std::function<void(int)> select,
               std::function<void(uint16_t)> control)
    : eightSlots_(scenario.boardType != 1),
      faults_(faults),
      thermals_(thermals),
      select_(std::move(select)),
      control_(std::move(control)) {
    eeprom_.fill(0xFF);
    eeprom_[0x00] = static_cast<uint8_t>(scenario.eepromVersion);
    bigEndian(eeprom_, 0x01, scenario.eepromKeyValid ? 0xFAF320 : 0x5AA5A5, 3);
    bigEndian(eeprom_, 0x04, scenario.serialNumber, 8);
    eeprom_[0x0C] = static_cast<uint8_t>(scenario.boardType);
    eeprom_[0x0D] = static_cast<uint8_t>(scenario.slots);
    bigEndian(eeprom_, 0x0E, scenario.canPorts, 2);
    bigEndian(eeprom_, 0x10, scenario.serialNumber, 8);
    bigEndian(eeprom_, 0x18, 1767225600, 8);  // adjusted and calibrated on 1 January 2026
    bigEndian(eeprom_, 0x20, 1767225600, 8);
    bigEndian(eeprom_, 0x28, scenario.hardwareVersion, 4);
    bigEndian(eeprom_, 0xFA, 0x024B53000000 | (scenario.serialNumber & 0xFFFFFF), 6);  // locally administered
    // Bits 9 to 2 of the control word, and 1 and 0; the bits above these belong to something else.
    oscillator_[wordHigh] = static_cast<uint8_t>(scenario.oscillator.word >> 2);
    oscillator_[wordLow] = static_cast<uint8_t>(0xA8 | (scenario.oscillator.word & 3));
}

uint8_t* I2cBus::multiplexer(int address) {
    if (address == 0x4F) {
        return &multiplexer4f_;
    }
    return address == 0x4D && eightSlots_ ? &multiplexer4d_ : nullptr;
}

void I2cBus::updateSelection() {
    int slot = -1;
    if (eightSlots_) {
        if (multiplexer4d_ == multiplexer4f_ && std::has_single_bit(multiplexer4f_)) {
            slot = std::countr_zero(multiplexer4f_);
        }
    } else if (multiplexer4f_ == 0x11) {
        slot = 0;
    } else if (multiplexer4f_ == 0x22) {
        slot = 1;
    }
    select_(slot);
}

ssize_t I2cBus::writeLocked(int address, const uint8_t* data, size_t size) {
    if (address == eepromAddress) {
        if (faults_.hit(FaultKind::EepromSilent)) {
            return -ENXIO;
        }
        if (size != 0) {
            eepromAt_ = data[0];
            for (size_t i = 1; i < size; ++i) {
                eeprom_[eepromAt_++] = data[i];
            }
        }
        return static_cast<ssize_t>(size);
    }
    if (address == oscillatorAddress) {
        if (faults_.hit(FaultKind::OscillatorSilent)) {
            return -ENXIO;
        }
        if (size != 0) {
            oscillatorAt_ = data[0];
            for (size_t i = 1; i < size; ++i) {
                const uint8_t at = oscillatorAt_++;
                oscillator_[at] = data[i];
                if (at == wordHigh || at == wordLow) {
                    control_(static_cast<uint16_t>(oscillator_[wordHigh] << 2 | (oscillator_[wordLow] & 3)));
                }
            }
        }
        return static_cast<ssize_t>(size);
    }
    if (hasThermometer(address)) {
        const auto chip = static_cast<size_t>(address - firstThermometer);
        if (size != 0) {
            thermometerAt_[chip] = data[0];
        }
        if (size > 1 && data[0] == 1) {
            thermometerMode_[chip] = data[1];
        }
        return static_cast<ssize_t>(size);
    }
    if (uint8_t* value = multiplexer(address)) {
        if (size == 2 && data[0] == 0) {
            *value = data[1];
            updateSelection();
        }
        return static_cast<ssize_t>(size);
    }
    return -ENXIO;
}

ssize_t I2cBus::readLocked(int address, uint8_t* data, size_t size, bool multiplexerSilent) {
    if (address == eepromAddress) {
        if (faults_.hit(FaultKind::EepromSilent)) {
            return -ENXIO;
        }
        if (size != 0 && faults_.hit(FaultKind::EepromShortRead)) {
            --size;
        }
        for (size_t i = 0; i < size; ++i) {
            data[i] = eeprom_[eepromAt_++];
        }
        return static_cast<ssize_t>(size);
    }
    if (address == oscillatorAddress) {
        if (faults_.hit(FaultKind::OscillatorSilent)) {
            return -ENXIO;
        }
        for (size_t i = 0; i < size; ++i) {
            data[i] = oscillator_[oscillatorAt_++];
        }
        return static_cast<ssize_t>(size);
    }
    if (hasThermometer(address)) {
        return readThermometer(address, data, size);
    }
    if (const uint8_t* value = multiplexer(address)) {
        std::fill_n(data, size, multiplexerSilent ? uint8_t(0) : *value);
        return static_cast<ssize_t>(size);
    }
    return -ENXIO;
}

bool I2cBus::hasThermometer(int address) const {
    return address >= firstThermometer && (address < lastThermometer || (address == lastThermometer && eightSlots_));
}

ssize_t I2cBus::readThermometer(int address, uint8_t* data, size_t size) {
    const auto chip = static_cast<size_t>(address - firstThermometer);
    double celsius = 0.0;
    if (const int error = thermals_.readChip(address, celsius); error != 0) {
        return error;
    }
    if (thermometerAt_[chip] == 1) {
        std::fill_n(data, size, thermometerMode_[chip]);
        return static_cast<ssize_t>(size);
    }
    // Twelve bits of 1/16 degree, left-aligned.
    const double steps = std::clamp(std::round(celsius * 16.0), -2048.0, 2047.0);
    const auto word = static_cast<uint16_t>(static_cast<int>(steps) * 16);
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<uint8_t>(i % 2 == 0 ? word >> 8 : word & 0xFF);
    }
    return static_cast<ssize_t>(size);
}

ssize_t I2cBus::write(int address, const uint8_t* data, size_t size) {
    const std::lock_guard lock(mutex_);
    return writeLocked(address, data, size);
}

ssize_t I2cBus::read(int address, uint8_t* data, size_t size) {
    const std::lock_guard lock(mutex_);
    return readLocked(address, data, size, false);
}

int I2cBus::transfer(I2cMessage* messages, size_t count) {
    if (faults_.hit(FaultKind::MuxAgain)) {
        return -EAGAIN;
    }
    if (faults_.hit(FaultKind::MuxError)) {
        return -EIO;
    }
    const std::lock_guard lock(mutex_);
    for (size_t i = 0; i < count; ++i) {
        I2cMessage& message = messages[i];
        ssize_t result = 0;
        if (message.read) {
            const bool silent = multiplexer(message.address) != nullptr &&
                                faults_.hit(FaultKind::MuxReadsBack, -1, message.address).has_value();
            result = readLocked(message.address, message.data, message.size, silent);
        } else {
            result = writeLocked(message.address, message.data, message.size);
        }
        if (result < 0) {
            return static_cast<int>(result);
        }
    }
    return static_cast<int>(count);
}

std::array<uint8_t, 256> I2cBus::eeprom() const {
    const std::lock_guard lock(mutex_);
    return eeprom_;
}

}  // namespace kestrixsim
