#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <type_traits>

namespace Harvane::RT::Modules::Daq {

// Read side of a FIFO. Counts and positions are in items.
template <class T>
class ISourceBuffer {
public:
    virtual ~ISourceBuffer() = default;
    // Recursive: a caller may hold it over several operations.
    virtual std::recursive_mutex& getLock() = 0;
    virtual unsigned long getSize() = 0;
    // Copies at most count items from the head and returns how many; with incrementPosition they are taken out.
    virtual unsigned long readSamples(T* target, unsigned long count, bool incrementPosition) = 0;
    virtual void incrementReadPosition(unsigned long count) = 0;
};

// Read side over one array. UseLock: each operation holds the lock for its whole duration.
template <class T, bool UseLock>
class IDirectArraySourceBuffer : public ISourceBuffer<T> {
public:
    virtual T* getData() const = 0;
    virtual unsigned long getCapacity() const = 0;
    virtual unsigned long getReadPos() = 0;

    unsigned long readSamples(T* target, unsigned long count, bool incrementPosition) override {
        return readSamplesAt(target, count, incrementPosition, 0);
    }

    // As readSamples, from offset items behind the head.
    virtual unsigned long readSamplesAt(T* target, unsigned long count, bool incrementPosition, unsigned long offset) {
        auto guard = lockIfUsed();
        const unsigned long held = this->getSize();
        const unsigned long m = std::min(count, held - std::min(offset, held));
        if (m == 0) {
            return 0;
        }
        const unsigned long capacity = getCapacity();
        const unsigned long start = (getReadPos() + offset) % capacity;
        if (start + m >= capacity) {
            const unsigned long first = capacity - start;
            read(target, first, start);
            read(target + first, m - first, 0);
        } else {
            read(target, m, start);
        }
        if (incrementPosition) {
            this->incrementReadPosition(m);
        }
        return m;
    }

    // Plain copies out of the array, without any check or wrap.
    virtual unsigned long read(T* target, unsigned long count, unsigned long position) {
        auto guard = lockIfUsed();
        std::copy_n(getData() + position, count, target);
        return count;
    }
    virtual unsigned long read(T* target, unsigned long count) {
        auto guard = lockIfUsed();
        return read(target, count, getReadPos());
    }

private:
    std::unique_lock<std::recursive_mutex> lockIfUsed() {
        return UseLock ? std::unique_lock<std::recursive_mutex>(this->getLock())
                       : std::unique_lock<std::recursive_mutex>();
    }
};

// Write side of a FIFO.
template <class T>
class ITargetBuffer {
public:
    virtual ~ITargetBuffer() = default;
    virtual std::recursive_mutex& getLock() = 0;
    virtual unsigned long getRemainingSize() = 0;
    // Stores what fits and returns how many items that were. Never overwrites what wasn't read.
    virtual unsigned long writeSamples(const T* source, unsigned long count, bool incrementPosition) = 0;
    virtual void incrementWritePosition(unsigned long count) = 0;
};

// Write side over one array.
template <class T>
class IDirectArrayTargetBuffer : public ITargetBuffer<T> {
public:
    virtual T* getData() const = 0;
    virtual unsigned long getCapacity() const = 0;
    virtual unsigned long getWritePos() = 0;
    // Plain copies into the array, without any check or wrap.
    virtual unsigned long write(const T* source, unsigned long count, unsigned long position) = 0;
    virtual unsigned long write(const T* source, unsigned long count) = 0;
};

// FIFO between one producer and one consumer thread. Every operation holds the recursive lock.
template <class T>
class FifoBufferBase : public IDirectArraySourceBuffer<T, true>, public IDirectArrayTargetBuffer<T> {
    static_assert(std::is_trivially_copyable_v<T>);
    using Guard = std::lock_guard<std::recursive_mutex>;

public:
    std::recursive_mutex& getLock() override { return lock_; }

    // The one array that both sides work on.
    T* getData() const override = 0;
    unsigned long getSize() override {
        Guard guard(lock_);
        return size_;
    }
    unsigned long getCapacity() const override {
        Guard guard(lock_);
        return capacity_;
    }
    unsigned long getReadPos() override {
        Guard guard(lock_);
        return readPos_;
    }
    void incrementReadPosition(unsigned long count) override {
        Guard guard(lock_);
        size_ -= count;
        readPos_ += count;
        if (readPos_ >= capacity_) {
            readPos_ -= capacity_;
        }
    }

    unsigned long getWritePos() override {
        Guard guard(lock_);
        return writePos_;
    }
    unsigned long getRemainingSize() override {
        Guard guard(lock_);
        return capacity_ - size_;
    }
    // Contents are lost.
    virtual void setCapacity(unsigned long capacity) {
        Guard guard(lock_);
        capacity_ = capacity;
        reset();
    }
    virtual bool isFull() {
        Guard guard(lock_);
        return capacity_ != 0 && size_ == capacity_;
    }
    virtual void reset() {
        Guard guard(lock_);
        size_ = 0;
        readPos_ = 0;
        writePos_ = 0;
    }
    void incrementWritePosition(unsigned long count) override {
        Guard guard(lock_);
        size_ += count;
        writePos_ += count;
        if (writePos_ >= capacity_) {
            writePos_ -= capacity_;
        }
    }

    unsigned long writeSamples(const T* source, unsigned long count, bool incrementPosition) override {
        Guard guard(lock_);
        const unsigned long m = std::min(count, getRemainingSize());
        if (m == 0) {
            return 0;
        }
        if (writePos_ + m > capacity_) {
            const unsigned long first = capacity_ - writePos_;
            write(source, first, writePos_);
            write(source + first, m - first, 0);
        } else {
            write(source, m, writePos_);
        }
        if (incrementPosition) {
            incrementWritePosition(m);
        }
        return m;
    }

    unsigned long write(const T* source, unsigned long count, unsigned long position) override {
        Guard guard(lock_);
        std::copy_n(source, count, getData() + position);
        return count;
    }
    unsigned long write(const T* source, unsigned long count) override {
        Guard guard(lock_);
        return write(source, count, writePos_);
    }

private:
    mutable std::recursive_mutex lock_;
    unsigned long size_ = 0;
    unsigned long capacity_ = 0;
    unsigned long readPos_ = 0;
    unsigned long writePos_ = 0;
};

// FIFO that owns its array.
template <class T>
class FifoBuffer : public FifoBufferBase<T> {
public:
    T* getData() const override { return data_.get(); }

    void setCapacity(unsigned long capacity) override {
        std::lock_guard<std::recursive_mutex> guard(this->getLock());
        auto data = capacity ? std::make_unique<T[]>(capacity) : nullptr;
        FifoBufferBase<T>::setCapacity(capacity);
        data_ = std::move(data);
    }

private:
    std::unique_ptr<T[]> data_;
};

}  // namespace Harvane::RT::Modules::Daq
