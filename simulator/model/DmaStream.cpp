#include "simulator/model/DmaStream.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>

namespace kestrixsim {

namespace {

constexpr size_t mostDescriptors = 1024;

}  // namespace

DmaStream::DmaStream(const Oscillator& clock, Stream kind, bool unthrottled)
    : clock_(clock), kind_(kind), unthrottled_(unthrottled) {
    source_.waveform.kind = WaveformKind::Constant;
}

DmaStream::~DmaStream() = default;

void DmaStream::rebuildSignal() {
    signal_ = enabled_ ? std::make_unique<Signal>(source_, format_) : nullptr;
}

void DmaStream::updateFlow(double start) {
    const bool flow = started_ && enabled_ && running_;
    if (flow && !flowing_) {
        flowStart_ = std::max(start, runningSince_);
        flowing_ = true;
    } else if (!flow && flowing_) {
        const double now = clock_.seconds();
        settle(now);
        flowBase_ = produced(now);
        flowing_ = false;
    }
}

uint64_t DmaStream::produced(double now) const {
    if (!flowing_ || now <= flowStart_) {
        return std::min(flowBase_, format_.limit);
    }
    // The small part of a sample makes up for rounding of times that fall on a sample.
    const double samples = (now - flowStart_) * format_.nominalRate() + 1e-6;
    return std::min(flowBase_ + static_cast<uint64_t>(samples), format_.limit);
}

void DmaStream::settle(double now) {
    if (!flowing_ || unthrottled_ || descriptorSize_ == 0 || !wholeSamples()) {
        return;
    }
    const size_t samples = descriptorSize_ / sampleSize();
    const uint64_t complete = produced(now) / samples;
    if (ringHead_ != 0) {
        ring_.erase(ring_.begin(), ring_.begin() + static_cast<std::ptrdiff_t>(ringHead_));
        ringHead_ = 0;
    }
    while (finished_ < complete && ring_.size() < descriptorCount_) {
        ring_.push_back(finished_++);
    }
    if (finished_ < complete) {
        statistics_.samplesDropped += (complete - finished_) * samples;
        finished_ = complete;
    }
}

void DmaStream::emptyRing() {
    ring_.clear();
    ringHead_ = 0;
    headOffset_ = 0;
    finished_ = 0;
    flowBase_ = 0;
}

void DmaStream::enable(const StreamFormat& format) {
    const std::lock_guard lock(mutex_);
    format_ = format;
    enabled_ = true;
    rebuildSignal();
    updateFlow(clock_.seconds());
}

void DmaStream::disable() {
    const std::lock_guard lock(mutex_);
    enabled_ = false;
    updateFlow(0.0);  // the signal stays: finished descriptors can still be read
}

void DmaStream::run(double since, bool debugCounter, double baseClock, double pull) {
    const std::lock_guard lock(mutex_);
    if (source_.debugCounter != debugCounter || (enabled_ && format_.baseClock != baseClock)) {
        source_.debugCounter = debugCounter;
        format_.baseClock = baseClock;
        format_.pull = pull;
        rebuildSignal();
    }
    running_ = true;
    runningSince_ = since;
    updateFlow(since);
}

void DmaStream::halt() {
    const std::lock_guard lock(mutex_);
    running_ = false;
    updateFlow(0.0);
}

void DmaStream::flush() {
    const std::lock_guard lock(mutex_);
    emptyRing();
    flowStart_ = std::max(clock_.seconds(), runningSince_);
}

void DmaStream::setSource(const SignalSource& source) {
    const std::lock_guard lock(mutex_);
    const bool debugCounter = source_.debugCounter;
    source_ = source;
    source_.debugCounter = debugCounter;
    rebuildSignal();
}

int DmaStream::control(unsigned long request, unsigned long argument) {
    const std::lock_guard lock(mutex_);
    switch (static_cast<DriverRequest>(request)) {
        case DriverRequest::SetDescriptorCount:
            if (started_) {
                return -EBUSY;
            }
            if (argument == 0 || argument > mostDescriptors) {
                return -EINVAL;
            }
            descriptorCount_ = argument;
            reserved_ = false;
            return 0;
        case DriverRequest::SetDescriptorSize:
            if (started_) {
                return -EBUSY;
            }
            // A size that splits samples passes: the driver moves bytes and does not know them.
            if (argument == 0 || argument > INT_MAX) {
                return -EINVAL;
            }
            descriptorSize_ = argument;
            reserved_ = false;
            statistics_.descriptorSize = static_cast<int>(argument);
            return 0;
        case DriverRequest::ReserveMemory:
        case DriverRequest::ReserveMemoryUsb:
            if (started_) {
                return -EBUSY;
            }
            if (descriptorCount_ == 0 || descriptorSize_ == 0) {
                return -EINVAL;
            }
            emptyRing();
            ring_.reserve(descriptorCount_);
            reserved_ = true;
            usb_ = static_cast<DriverRequest>(request) == DriverRequest::ReserveMemoryUsb;
            return 0;
        case DriverRequest::StartTransfer:
        case DriverRequest::StartTransferUsb:
            if (started_) {
                return -EBUSY;
            }
            if (!reserved_ || usb_ != (static_cast<DriverRequest>(request) == DriverRequest::StartTransferUsb) ||
                (enabled_ && !wholeSamples())) {
                return -EINVAL;
            }
            emptyRing();
            statistics_ = {};
            statistics_.descriptorSize = static_cast<int>(descriptorSize_);
            started_ = true;
            updateFlow(clock_.seconds());
            return 0;
        case DriverRequest::StopTransfer:
        case DriverRequest::StopTransferUsb:
            if (started_ && usb_ != (static_cast<DriverRequest>(request) == DriverRequest::StopTransferUsb)) {
                return -EINVAL;
            }
            started_ = false;
            updateFlow(0.0);
            return 0;
        default:
            return -ENOTTY;
    }
}

void DmaStream::generate(uint64_t firstByte, size_t size, uint8_t* buffer) const {
    const uint64_t first = firstByte / sampleSize();
    const size_t count = size / sampleSize();
    const auto make = [&](auto zero) {
        using Sample = decltype(zero);
        if (!signal_) {
            std::memset(buffer, 0, size);
        } else if (reinterpret_cast<uintptr_t>(buffer) % alignof(Sample) == 0) {
            signal_->generate(first, count, reinterpret_cast<Sample*>(buffer));
        } else {
            std::vector<Sample> samples(count);
            signal_->generate(first, count, samples.data());
            std::memcpy(buffer, samples.data(), size);
        }
    };
    if (kind_ == Stream::Raw) {
        make(int16_t());
    } else {
        make(int32_t());
    }
}

ssize_t DmaStream::read(void* buffer, size_t size, const std::function<ReadFault()>& fault) {
    const std::lock_guard lock(mutex_);
    if (!started_ || usb_) {
        return -EAGAIN;
    }
    auto* bytes = static_cast<uint8_t*>(buffer);
    const size_t whole = descriptorSize_;
    if (unthrottled_ && flowing_ && wholeSamples() && clock_.seconds() >= flowStart_) {
        // The ring is full again whenever somebody looks.
        if (ringHead_ != 0) {
            ring_.erase(ring_.begin(), ring_.begin() + static_cast<std::ptrdiff_t>(ringHead_));
            ringHead_ = 0;
        }
        const uint64_t most = format_.limit / (whole / sampleSize());
        while (ring_.size() < descriptorCount_ && finished_ < most) {
            ring_.push_back(finished_++);
        }
    } else {
        settle(clock_.seconds());
    }
    const size_t ready = ring_.size() - ringHead_;
    if (ready == 0) {
        return -EAGAIN;
    }
    const size_t head = whole - headOffset_;
    if (size < head) {
        return -EINVAL;
    }
    size_t descriptors = 1 + std::min(ready - 1, (size - head) / whole);
    size_t cut = 0;  // bytes left of the last descriptor
    const ReadFault shortened = fault();
    if (shortened == ReadFault::OneDescriptorLess) {
        if (--descriptors == 0) {
            return -EAGAIN;
        }
    } else if (shortened == ReadFault::PartOfDescriptor) {
        const size_t last = descriptors == 1 ? head : whole;
        cut = last / 2 / sampleSize() * sampleSize();
        if (cut == last) {
            cut = 0;
        }
    }
    // Descriptors with consecutive numbers are made in one go.
    size_t done = 0;
    for (size_t i = 0; i < descriptors;) {
        size_t next = i + 1;
        while (next < descriptors && ring_[ringHead_ + next] == ring_[ringHead_ + next - 1] + 1) {
            ++next;
        }
        size_t piece = (next - i) * whole - (i == 0 ? headOffset_ : 0);
        if (next == descriptors) {
            piece -= cut;
        }
        generate(ring_[ringHead_ + i] * whole + (i == 0 ? headOffset_ : 0), piece, bytes + done);
        done += piece;
        i = next;
    }
    if (cut != 0) {
        headOffset_ = whole - cut;
        ringHead_ += descriptors - 1;
    } else {
        headOffset_ = 0;
        ringHead_ += descriptors;
    }
    statistics_.samplesDelivered += done / sampleSize();
    ++statistics_.reads;
    return static_cast<ssize_t>(done);
}

StreamStatistics DmaStream::statistics() {
    const std::lock_guard lock(mutex_);
    settle(clock_.seconds());
    StreamStatistics result = statistics_;
    result.started = started_;
    return result;
}

}  // namespace kestrixsim
