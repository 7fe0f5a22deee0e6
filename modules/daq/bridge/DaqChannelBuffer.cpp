#include "modules/daq/bridge/DaqChannelBuffer.h"

#include <cstring>
#include <new>
#include <stdexcept>

#include <zorn/types/object_impl.h>

namespace Harvane::RT::Modules::Daq {

DaqChannelBuffer::DaqChannelBuffer(const Core::ChannelPtr<Core::IChannel>& channel)
    : channel_(channel), buffer_(channel.getBuffer()) {
    data_ = static_cast<unsigned char*>(buffer_.getData());
    capacity_ = buffer_.getCapacity();
    sampleSize_ = buffer_.getSampleSize();
    std::size_t* position = nullptr;
    // The address stays good for as long as buffer_ is held.
    Core::checkErrorInfo(buffer_.asPtr<Core::IChannelBufferV2>()->getPositionPointer(&position));
    position_ = position;
    // No host object, so the object base doesn't count it; but its code is this library's.
    Core::zornSharedLibObjectCount.fetch_add(1, std::memory_order_relaxed);
}

DaqChannelBuffer::~DaqChannelBuffer() {
    Core::zornSharedLibObjectCount.fetch_sub(1, std::memory_order_acq_rel);
}

bool DaqChannelBuffer::isCurrent() const {
    const Core::ChannelBufferPtr<Core::IChannelBuffer> ring = channel_.getBuffer();
    return ring.get() == buffer_.get() && ring.getData() == data_ && ring.getCapacity() == capacity_ && *position_ == 0;
}

void DaqChannelBuffer::setCapacity(unsigned long) {}

unsigned long DaqChannelBuffer::getSize() const {
    return buffer_.getSize();
}

void DaqChannelBuffer::setSize(unsigned long) {
    throw std::runtime_error("Not implemented");
}

void DaqChannelBuffer::setPosition(unsigned long) {
    throw std::runtime_error("Not implemented");
}

void DaqChannelBuffer::reset() {
    throw std::runtime_error("Not implemented");
}

bool DaqChannelBuffer::isEmpty() {
    return buffer_.isEmpty();
}

void DaqChannelBuffer::addSample(const void* sample) {
    const std::size_t size = getSampleSize();
    std::memcpy(data_ + getPosition() * size, sample, size);
    incrementSamplePosition(1);
}

void DaqChannelBuffer::incrementSamplePosition(unsigned long count) {
    Core::checkErrorInfo(channel_->incrementSamplePosition(count));
}

void* DaqChannelBuffer::getSample(unsigned long index) {
    return buffer_.getSample(index);
}

double DaqChannelBuffer::getSampleInDouble(unsigned long index) {
    return buffer_.getSampleInDouble(index);
}

}  // namespace Harvane::RT::Modules::Daq

using namespace Harvane::RT;

ZORN_FUNCTION Core::ErrCode createDaqChannelBuffer(void** buffer, Core::IChannel* channel) {
    if (buffer == nullptr) {
        return Core::plainError(Core::Errors::ArgumentNull);
    }
    return Core::wrapHandler([&]() -> Core::ErrCode {
        Modules::Daq::IChannelBuffer* made =
            new (std::nothrow) Modules::Daq::DaqChannelBuffer(Core::ChannelPtr<Core::IChannel>(channel));
        if (made == nullptr) {
            return Core::plainError(Core::Errors::NoMemory);
        }
        *buffer = made;
        return Core::Errors::Success;
    });
}

ZORN_FUNCTION Core::ErrCode removeDaqChannelBuffer(Modules::Daq::IChannelBuffer* buffer) {
    return Core::wrapHandler([&] { delete buffer; });
}
