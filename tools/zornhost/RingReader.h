#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <zorn/scheduler/scheduler.h>
#include <zorn/structure/channel.h>

namespace zornhost {

// Takes the samples of one host channel out of its ring, from a thread of its own, without ever holding the
// cycle up. The module writes into the ring's memory while this reads; that what was copied is what was written is
// checked afterwards: once no cycle is in progress any more, the writer must not have come round to the copied slots.
class RingReader {
public:
    // What one call of `read` found.
    struct Result {
        size_t samples = 0;       // copied into the caller's memory, oldest first
        uint64_t firstIndex = 0;  // index of the first of them since the start of the acquisition
        uint64_t lost = 0;        // samples in front of them that the writer went over before they could be read
    };

    RingReader(const Harvane::RT::Core::ChannelPtr<>& channel, const Harvane::RT::Core::Scheduler& scheduler);

    // Copies at most `maximum` samples. Bounded: waits for the end of a cycle only after the copy, at most 1 s, and
    // gives nothing when the cycle has not ended by then: the samples stay to be read.
    Result read(void* target, size_t maximum) { return read(target, nullptr, maximum); }
    // Of an asynchronous channel with the time of each sample, in ns since the start.
    Result read(void* target, long* stamps, size_t maximum);

    size_t sampleSize() const { return sampleSize_; }
    size_t capacity() const { return capacity_; }
    uint64_t next() const { return next_; }  // index of the next sample to be read
    uint64_t acquired() const;               // samples that the module has delivered
    // Share of the ring that holds unread samples, 0 to 1; above 1 when some have been lost already.
    double fill() const;

private:
    Harvane::RT::Core::ChannelPtr<> channel_;
    Harvane::RT::Core::AsyncChannelPtr stamped_;  // the same, where samples have stamps
    const Harvane::RT::Core::Scheduler& scheduler_;
    const unsigned char* data_ = nullptr;
    size_t capacity_ = 0;
    size_t sampleSize_ = 0;
    uint64_t next_ = 0;
};

}  // namespace zornhost
