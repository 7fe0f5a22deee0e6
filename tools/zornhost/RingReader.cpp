#include "tools/zornhost/RingReader.h"

#include <algorithm>
#include <cstring>

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {
constexpr int cycleEndTimeoutMs = 1000;
}

RingReader::RingReader(const ChannelPtr<>& channel, const Scheduler& scheduler)
    : channel_(channel), stamped_(channel.asPtrOrNull<IAsyncChannel>()), scheduler_(scheduler) {
    const auto buffer = channel.getBuffer();
    data_ = static_cast<const unsigned char*>(buffer.getData());
    capacity_ = buffer.getCapacity();
    sampleSize_ = buffer.getSampleSize();
}

uint64_t RingReader::acquired() const {
    return static_cast<uint64_t>(channel_.getSamplesAcquired());
}

double RingReader::fill() const {
    return capacity_ == 0 ? 0.0 : static_cast<double>(acquired() - next_) / static_cast<double>(capacity_);
}

RingReader::Result RingReader::read(void* target, long* stamps, size_t maximum) {
    Result result;
    result.firstIndex = next_;
    if (capacity_ == 0) {
        return result;
    }

    // What the writer has already gone over can't be had; half a ring of distance keeps the next attempts clear of it.
    const auto skipOverwritten = [&](uint64_t acquiredNow) {
        const uint64_t restart = acquiredNow - capacity_ / 2;
        result.lost += restart - next_;
        next_ = restart;
        result.firstIndex = next_;
    };

    for (int attempt = 0; attempt < 3; ++attempt) {
        const uint64_t available = acquired();
        if (available - next_ > capacity_) {
            skipOverwritten(available);
        }
        const size_t slot = static_cast<size_t>(next_ % capacity_);
        const size_t count = std::min({maximum, static_cast<size_t>(available - next_), capacity_ - slot});
        if (count == 0) {
            return result;
        }
        std::memcpy(target, data_ + slot * sampleSize_, count * sampleSize_);
        for (size_t i = 0; stamps != nullptr && i < count; ++i) {
            checkErrorInfo(stamped_->getTimestampAtPos(slot + i, &stamps[i]));
        }

        if (!scheduler_.waitForCycleEnd(cycleEndTimeoutMs)) {
            return result;  // a cycle that hangs may be writing there: what was copied can't be trusted yet
        }
        const uint64_t acquiredNow = acquired();
        if (acquiredNow - next_ <= capacity_) {
            result.samples = count;
            next_ += count;
            return result;
        }
        skipOverwritten(acquiredNow);
    }
    return result;
}

}  // namespace zornhost
