#pragma once

#include <cstddef>

#include <zorn/structure/channel.h>

#include "modules/daq/objectmodel/IChannelBuffer.h"

namespace Harvane::RT::Modules::Daq {

// The sample memory of a host channel, seen as a buffer of the device tree: what the acquisition writes stands in the
// host's ring at once, without a copy. One object serves one run; the host must not reallocate the ring meanwhile.
// Host failures come as the host's exceptions. Thread of the cycle, like every buffer. Counts as an object of this
// library as long as it lives.
class DaqChannelBuffer final : public IChannelBuffer {
public:
    // Reads address, capacity and the place of the write position once. Throws InvalidParameterException for an empty
    // pointer or a channel without a buffer.
    explicit DaqChannelBuffer(const Core::ChannelPtr<Core::IChannel>& channel);
    ~DaqChannelBuffer() override;
    DaqChannelBuffer(const DaqChannelBuffer&) = delete;
    DaqChannelBuffer& operator=(const DaqChannelBuffer&) = delete;

    // Whether the channel's ring is still the one that was read, and stands at its beginning. Module thread.
    bool isCurrent() const;

    unsigned long getCapacity() const override { return capacity_; }
    // Nothing: the memory is the host's.
    void setCapacity(unsigned long capacity) override;
    unsigned long getSize() const override;
    // Throws std::runtime_error("Not implemented"), as setPosition and reset do.
    void setSize(unsigned long size) override;
    unsigned long getPosition() override { return *position_; }
    void setPosition(unsigned long position) override;
    void reset() override;
    bool isEmpty() override;
    unsigned long getSampleSize() override { return sampleSize_; }
    void* getData() override { return data_; }
    void addSample(const void* sample) override;
    void incrementSamplePosition(unsigned long count) override;
    void* getSample(unsigned long index) override;
    double getSampleInDouble(unsigned long index) override;

private:
    Core::ChannelPtr<Core::IChannel> channel_;
    Core::ChannelBufferPtr<Core::IChannelBuffer> buffer_;
    unsigned char* data_ = nullptr;
    std::size_t capacity_ = 0;
    std::size_t sampleSize_ = 0;
    const std::size_t* position_ = nullptr;  // the host's live write position
};

}  // namespace Harvane::RT::Modules::Daq

// Entry points for users of the adapter outside of the module. `buffer` receives a
// Harvane::RT::Modules::Daq::IChannelBuffer, which goes back through removeDaqChannelBuffer.
ZORN_FUNCTION Harvane::RT::Core::ErrCode createDaqChannelBuffer(void** buffer, Harvane::RT::Core::IChannel* channel);
// Null is accepted.
ZORN_FUNCTION Harvane::RT::Core::ErrCode removeDaqChannelBuffer(Harvane::RT::Modules::Daq::IChannelBuffer* buffer);
