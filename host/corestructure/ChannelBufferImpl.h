#pragma once

#include <atomic>

#include <zorn/structure/channel.h>
#include <zorn/types/object_impl.h>

#include "host/corestructure/SampleMemory.h"

namespace Harvane::RT::Core {

// Bytes of one element; 0 for an unknown type.
size_t elementSize(SampleDataType type);

// Samples in a ring for `rate`: two seconds, rounded down to a whole number of `multiple` samples and at least one
// multiple. The multiple keeps direct transfers whole: the end of the ring is the end of a descriptor.
size_t ringCapacity(const Ratio& rate, int64_t multiple);

// The ring of one channel. The cycle thread writes; everything else may read from any thread: what a reader asks for is
// derived from the count of samples, which is published after the samples that it counts. reserve() changes address and
// capacity and must meet neither a writer nor a reader.
class ChannelBufferImpl final : public ObjectImpl<IChannelBuffer, IChannelBufferV2> {
public:
    ChannelBufferImpl(SampleDataType type, size_t dimension, bool withTimestamps, double nan);

    // Module thread, between runs. Counts and position start over.
    void reserve(size_t capacity);

    // Cycle thread; neither allocate nor lock (a failing result leaves no text).
    ErrCode increment(size_t count);
    ErrCode addSample(long timestamp, const void* sample);

    long acquired() const { return acquired_.load(std::memory_order_acquire); }
    size_t filled() const;
    bool isNumeric() const { return numeric_; }
    // The raw number of a slot; the NaN for one that was never written.
    ErrCode rawValue(size_t position, double* value) const;
    // The same, counted back from the newest sample: -1 is the newest.
    ErrCode rawValueRelative(int position, double* value) const;
    ErrCode timestampAt(size_t position, long* timestamp) const;

    ErrCode getData(void** data) override;
    ErrCode getCapacity(size_t* capacity) override;
    ErrCode getSize(size_t* size) override;
    ErrCode getPosition(size_t* position) override;
    ErrCode getSampleSize(size_t* bytes) override;
    ErrCode isEmpty(unsigned char* empty) override;
    ErrCode getSample(size_t position, void** sample) override;
    ErrCode getSampleInDouble(size_t position, double* value) override;
    ErrCode getPositionPointer(size_t** position) override;

private:
    double number(size_t position) const;

    const SampleDataType type_;
    const bool numeric_;
    const bool withTimestamps_;
    const size_t sampleSize_;
    const double nan_;

    SampleMemory samples_;
    SampleMemory timestamps_;
    size_t capacity_ = 0;
    // Slot of the next write, for the module that keeps its address. Always acquired modulo capacity.
    size_t position_ = 0;
    std::atomic<long> acquired_{0};
};

}  // namespace Harvane::RT::Core
