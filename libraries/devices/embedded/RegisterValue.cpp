#include "libraries/devices/embedded/RegisterValue.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "libraries/devices/embedded/ByteBuffer.h"
#include "libraries/utils/StringHelper.h"

namespace Harvane::ZornLib::Devices::Embedded {

namespace {

// The part of a field that lies in one byte: `bits` bits, `shift` bits above the right end of byte `index`.
struct Run {
    uint64_t index;
    unsigned int shift;
    unsigned int bits;

    unsigned int mask() const { return (1u << bits) - 1; }
};

// Visits a field's bytes from its most significant bit on.
template <typename Visit>
void forEachRun(uint64_t bit, uint64_t bits, Visit visit) {
    uint64_t index = bit / 8;
    auto offset = static_cast<unsigned int>(bit % 8);
    for (uint64_t remaining = bits; remaining > 0; ++index, offset = 0) {
        const auto taken = static_cast<unsigned int>(std::min<uint64_t>(8 - offset, remaining));
        visit(Run{index, 8 - offset - taken, taken});
        remaining -= taken;
    }
}

uint64_t wordCount(uint64_t bit, uint64_t bits, size_t wordSize) {
    return (bit + bits - 1) / (8 * wordSize) + 1;
}

}  // namespace

template <typename T>
RegisterValue<T>::RegisterValue(IRegisterDevice* device, uint64_t address, uint64_t bit, uint64_t bits,
                                std::string name, bool readOnly)
    : device_(device), name_(std::move(name)), address_(address), bit_(bit), bits_(bits), readOnly_(readOnly) {
    if (bits == 0 || bits > 8 * sizeof(T)) {
        throw std::runtime_error("Wrong bit(s) size");
    }
    if (!device) {
        throw std::runtime_error("Device is not assiged");
    }
    if (device->FindRegisterValueInRange(address, bit, bits)) {
        throw std::runtime_error("Overlapping register value");
    }
    device->getRegisters().push_back(this);
}

template <typename T>
T RegisterValue<T>::read() const {
    // Reads go by the block's word, writes by writeWordSize below: a block that accesses by value type has both.
    const size_t wordSize = device_->getBaseTypeSize();
    const uint64_t count = wordCount(bit_, bits_, wordSize);
    ByteBuffer buffer(count * wordSize);
    unsigned char* bytes = buffer.data();
    for (uint64_t n = 0; n < count; ++n) {
        device_->read(address_ + n, bytes + n * wordSize, wordSize);
    }

    uint64_t value = 0;
    if (whole()) {
        for (size_t n = 0; n < buffer.size(); ++n) {
            value = (value << 8) | bytes[n];
        }
    } else {
        forEachRun(bit_, bits_, [&](const Run& run) {
            value = (value << run.bits) | ((bytes[run.index] >> run.shift) & run.mask());
        });
    }
    return static_cast<T>(value);
}

template <typename T>
void RegisterValue<T>::write(T value) {
    if (readOnly_) {
        throw std::runtime_error("Read only register access");
    }
    const size_t wordSize = device_->getIsRegisterValueType() ? sizeof(T) : device_->getBaseTypeSize();
    const uint64_t count = wordCount(bit_, bits_, wordSize);
    ByteBuffer buffer(count * wordSize);
    unsigned char* bytes = buffer.data();
    auto source = static_cast<uint64_t>(value);

    if (whole()) {
        for (size_t n = buffer.size(); n > 0; --n, source >>= 8) {
            bytes[n - 1] = static_cast<unsigned char>(source);
        }
    } else {
        // What the field doesn't cover of its first and last word has to stay.
        const uint64_t last = count - 1;
        if (bit_ != 0) {
            device_->read(address_, bytes, wordSize);
        }
        if ((bit_ + bits_) % (8 * wordSize) != 0) {
            device_->read(address_ + last, bytes + last * wordSize, wordSize);
        }
        uint64_t remaining = bits_;
        forEachRun(bit_, bits_, [&](const Run& run) {
            remaining -= run.bits;
            const auto part = static_cast<unsigned int>(source >> remaining) & run.mask();
            bytes[run.index] =
                static_cast<unsigned char>((bytes[run.index] & ~(run.mask() << run.shift)) | (part << run.shift));
        });
    }
    for (uint64_t n = 0; n < count; ++n) {
        device_->write(address_ + n, bytes + n * wordSize, wordSize);
    }
}

template <typename T>
bool RegisterValue<T>::whole() const {
    const uint64_t wordBits = 8 * (device_->getIsRegisterValueType() ? sizeof(T) : device_->getBaseTypeSize());
    return bit_ == 0 && bits_ % wordBits == 0 && bits_ == 8 * sizeof(T);
}

template <typename T>
const std::string& RegisterValue<T>::getName() const {
    return name_;
}

template <typename T>
uint64_t RegisterValue<T>::getAddress() const {
    return address_;
}

template <typename T>
uint64_t RegisterValue<T>::getBit() const {
    return bit_;
}

template <typename T>
uint64_t RegisterValue<T>::getBits() const {
    return bits_;
}

template <typename T>
size_t RegisterValue<T>::getValueTypeSize() const {
    return sizeof(T);
}

template <typename T>
bool RegisterValue<T>::getReadOnly() const {
    return readOnly_;
}

template <typename T>
std::string RegisterValue<T>::toString() const {
    using Utils::DataTypes::StringHelper;
    const auto value = static_cast<unsigned long>(read());
    const auto bit = static_cast<int>(bit_);
    if (name_.empty()) {
        return StringHelper::format("Address: 0x%08lX; Bit: %d; Value: 0x%08lX", address_, bit, value);
    }
    return StringHelper::format("Address: 0x%08lX; Bit: %d; Value: 0x%08lX; Name: %s", address_, bit, value,
                                name_.c_str());
}

template <typename T>
void RegisterValue<T>::reset() {
    write(static_cast<T>(0));
}

template class RegisterValue<bool>;
template class RegisterValue<unsigned char>;
template class RegisterValue<unsigned short>;
template class RegisterValue<unsigned int>;
template class RegisterValue<unsigned long>;
template class RegisterValue<long>;

}  // namespace Harvane::ZornLib::Devices::Embedded
