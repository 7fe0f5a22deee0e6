#include "host/corestructure/ChannelBufferImpl.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace Harvane::RT::Core {

namespace {

constexpr int BufferSeconds = 2;

template <class T>
double load(const void* address) {
    T value;
    std::memcpy(&value, address, sizeof value);
    return static_cast<double>(value);
}

}  // namespace

size_t elementSize(SampleDataType type) {
    switch (type) {
        case SampleDataType::Float64:
            return 8;
        case SampleDataType::Int32:
            return 4;
        case SampleDataType::Int16:
            return 2;
        case SampleDataType::Int8:
            return 1;
        case SampleDataType::Float32:
            return 4;
        case SampleDataType::Opaque:
            return 1;
    }
    return 0;
}

size_t ringCapacity(const Ratio& rate, int64_t multiple) {
    const size_t step = multiple < 1 ? 1 : static_cast<size_t>(multiple);
    if (rate.denominator == 0 || (rate.numerator < 0) != (rate.denominator < 0)) {
        return step;
    }
    // In long double the product can't overflow; its 64 bit mantissa keeps every integer that fits into a size_t.
    const long double wanted = static_cast<long double>(rate.numerator) * BufferSeconds / rate.denominator;
    constexpr size_t most = std::numeric_limits<size_t>::max() / 2;
    const size_t samples = wanted >= static_cast<long double>(most) ? most : static_cast<size_t>(wanted);
    return std::max(samples / step * step, step);
}

ChannelBufferImpl::ChannelBufferImpl(SampleDataType type, size_t dimension, bool withTimestamps, double nan)
    : type_(type),
      numeric_(type != SampleDataType::Opaque && dimension == 1),
      withTimestamps_(withTimestamps),
      sampleSize_(elementSize(type) * dimension),
      nan_(nan) {}

void ChannelBufferImpl::reserve(size_t capacity) {
    capacity_ = 0;
    position_ = 0;
    acquired_.store(0, std::memory_order_release);
    size_t bytes = 0;
    if (__builtin_mul_overflow(capacity, std::max(sampleSize_, sizeof(int64_t)), &bytes)) {
        throw NoMemoryException("A ring of %zu samples of %zu bytes is too long", capacity, sampleSize_);
    }
    samples_.reserve(capacity * sampleSize_);
    if (withTimestamps_) {
        timestamps_.reserve(capacity * sizeof(int64_t));
    }
    capacity_ = capacity;
}

ErrCode ChannelBufferImpl::increment(size_t count) {
    if (count > capacity_) {
        return plainError(Errors::OutOfRange);
    }
    size_t position = position_ + count;
    if (position >= capacity_) {
        position -= capacity_;
    }
    position_ = position;
    acquired_.store(acquired_.load(std::memory_order_relaxed) + static_cast<long>(count), std::memory_order_release);
    return Errors::Success;
}

ErrCode ChannelBufferImpl::addSample(long timestamp, const void* sample) {
    if (sample == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    if (capacity_ != 0) {
        std::memcpy(static_cast<unsigned char*>(samples_.data()) + position_ * sampleSize_, sample, sampleSize_);
        if (withTimestamps_) {
            static_cast<int64_t*>(timestamps_.data())[position_] = timestamp;
        }
        if (++position_ == capacity_) {
            position_ = 0;
        }
    }
    // Counted even where there is no memory: both sides of an exchange go by the difference of their counts, and a
    // count that stood still would have the same samples offered again in every cycle.
    acquired_.store(acquired_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    return Errors::Success;
}

size_t ChannelBufferImpl::filled() const {
    return std::min(static_cast<size_t>(acquired()), capacity_);
}

double ChannelBufferImpl::number(size_t position) const {
    const void* address = static_cast<const unsigned char*>(samples_.data()) + position * sampleSize_;
    switch (type_) {
        case SampleDataType::Float64:
            return load<double>(address);
        case SampleDataType::Int32:
            return load<int32_t>(address);
        case SampleDataType::Int16:
            return load<int16_t>(address);
        case SampleDataType::Int8:
            return load<int8_t>(address);
        case SampleDataType::Float32:
            return load<float>(address);
        case SampleDataType::Opaque:
            break;
    }
    return nan_;
}

ErrCode ChannelBufferImpl::rawValue(size_t position, double* value) const {
    if (value == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    if (!numeric_) {
        return plainError(Errors::InvalidOperation);
    }
    if (position >= capacity_) {
        return plainError(Errors::OutOfRange);
    }
    *value = position < filled() ? number(position) : nan_;
    return Errors::Success;
}

ErrCode ChannelBufferImpl::rawValueRelative(int position, double* value) const {
    if (value == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    if (!numeric_) {
        return plainError(Errors::InvalidOperation);
    }
    if (position >= 0) {
        return plainError(Errors::OutOfRange);
    }
    const auto back = static_cast<size_t>(-static_cast<int64_t>(position));
    const long acquired = this->acquired();
    const size_t filled = std::min(static_cast<size_t>(acquired), capacity_);
    if (back > filled) {
        *value = nan_;
        // Beyond what a full ring can hold the question itself is wrong.
        return capacity_ != 0 && back > capacity_ ? Errors::OutOfRange : Errors::Success;
    }
    *value = number((static_cast<size_t>(acquired) - back) % capacity_);
    return Errors::Success;
}

ErrCode ChannelBufferImpl::timestampAt(size_t position, long* timestamp) const {
    if (timestamp == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    if (!withTimestamps_) {
        return plainError(Errors::InvalidOperation);
    }
    if (position >= capacity_) {
        return plainError(Errors::OutOfRange);
    }
    *timestamp = static_cast<const int64_t*>(timestamps_.data())[position];
    return Errors::Success;
}

ErrCode ChannelBufferImpl::getData(void** data) {
    return handOut(samples_.data(), data);
}

ErrCode ChannelBufferImpl::getCapacity(size_t* capacity) {
    return handOut(capacity_, capacity);
}

ErrCode ChannelBufferImpl::getSize(size_t* size) {
    return handOut(filled(), size);
}

ErrCode ChannelBufferImpl::getPosition(size_t* position) {
    return handOut(capacity_ == 0 ? 0 : static_cast<size_t>(acquired()) % capacity_, position);
}

ErrCode ChannelBufferImpl::getSampleSize(size_t* bytes) {
    return handOut(sampleSize_, bytes);
}

ErrCode ChannelBufferImpl::isEmpty(unsigned char* empty) {
    return handOut(filled() == 0 ? 1 : 0, empty);
}

ErrCode ChannelBufferImpl::getSample(size_t position, void** sample) {
    if (sample == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    if (position >= capacity_) {
        return plainError(Errors::OutOfRange);
    }
    *sample = static_cast<unsigned char*>(samples_.data()) + position * sampleSize_;
    return Errors::Success;
}

ErrCode ChannelBufferImpl::getSampleInDouble(size_t position, double* value) {
    return rawValue(position, value);
}

ErrCode ChannelBufferImpl::getPositionPointer(size_t** position) {
    return handOut(&position_, position);
}

}  // namespace Harvane::RT::Core
