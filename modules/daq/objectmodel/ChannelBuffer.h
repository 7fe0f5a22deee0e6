#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>

#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/IChannelBuffer.h"

namespace Harvane::RT::Modules::Daq {

// Ring over one block of capacity values of T in native byte order. A full ring overwrites its oldest sample: the
// tests that keep readers safe are those of Channel.
template <class T>
class ChannelBuffer final : public IChannelBuffer {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    unsigned long getCapacity() const override { return capacity_; }

    void setCapacity(unsigned long capacity) override {
        if (capacity != capacity_) {
            data_ = capacity ? std::make_unique<T[]>(capacity) : nullptr;
            capacity_ = capacity;
        }
        reset();
    }

    unsigned long getSize() const override { return size_; }
    void setSize(unsigned long size) override { size_ = size; }
    unsigned long getPosition() override { return position_; }
    void setPosition(unsigned long position) override { position_ = position; }

    void reset() override {
        position_ = 0;
        size_ = 0;
    }

    bool isEmpty() override { return size_ == 0; }
    unsigned long getSampleSize() override { return sizeof(T); }
    void* getData() override { return data_.get(); }

    void addSample(const void* sample) override {
        std::memcpy(&data_[position_], sample, sizeof(T));
        if (++position_ == capacity_) {
            position_ = 0;
        }
        size_ = std::min(capacity_, size_ + 1);
    }

    void incrementSamplePosition(unsigned long count) override {
        position_ += count;
        if (position_ >= capacity_) {
            position_ -= capacity_;
        }
        size_ = std::min(capacity_, size_ + count);
    }

    void* getSample(unsigned long index) override { return &data_[index]; }

    double getSampleInDouble([[maybe_unused]] unsigned long index) override {
        if constexpr (std::is_arithmetic_v<T>) {
            return static_cast<double>(data_[index]);
        } else {
            throw InvalidCallException();
        }
    }

private:
    std::unique_ptr<T[]> data_;
    unsigned long position_ = 0;
    unsigned long size_ = 0;
    unsigned long capacity_ = 0;
};

}  // namespace Harvane::RT::Modules::Daq
