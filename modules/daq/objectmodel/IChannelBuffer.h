#pragma once

namespace Harvane::RT::Modules::Daq {

// Sample store of a channel: a ring of slots. Positions, sizes and capacities count samples, never bytes. Without a
// lock: one thread writes, readers look at positions that it has already passed. No operation checks an index.
class IChannelBuffer {
public:
    virtual ~IChannelBuffer() = default;

    virtual unsigned long getCapacity() const = 0;
    // Contents are lost, also when the capacity stays the same; size and position are 0 afterwards.
    virtual void setCapacity(unsigned long capacity) = 0;
    // Valid samples, at most the capacity.
    virtual unsigned long getSize() const = 0;
    virtual void setSize(unsigned long size) = 0;
    // Slot of the next write.
    virtual unsigned long getPosition() = 0;
    virtual void setPosition(unsigned long position) = 0;
    // Size and position to 0. A store in the host's memory has no such operation and throws.
    virtual void reset() = 0;
    virtual bool isEmpty() = 0;
    // Bytes of one sample.
    virtual unsigned long getSampleSize() = 0;
    virtual void* getData() = 0;
    // Copies one sample from that address; the capacity must not be 0.
    virtual void addSample(const void* sample) = 0;
    // Accounts for samples that already stand in the array from the present position on; count below the capacity.
    virtual void incrementSamplePosition(unsigned long count) = 0;
    virtual void* getSample(unsigned long index) = 0;
    // The raw sample as a number. Throws InvalidCallException for records.
    virtual double getSampleInDouble(unsigned long index) = 0;
};

}  // namespace Harvane::RT::Modules::Daq
