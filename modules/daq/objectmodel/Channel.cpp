#include "modules/daq/objectmodel/Channel.h"

#include <algorithm>

namespace Harvane::RT::Modules::Daq {

namespace {

unsigned long relativePosition(IChannelBuffer& buffer, int relative) {
    long position = relative + static_cast<long>(buffer.getPosition());
    if (position < 0) {
        position += static_cast<long>(buffer.getCapacity());
    }
    return static_cast<unsigned long>(position);
}

}  // namespace

Channel::Channel(int number) : number(number) {}

Channel::~Channel() = default;

void Channel::initialize() {}

void Channel::prepareAcquisition() {}

void Channel::initializeAcquisition() {
    samplesAcquired = 0;
    samplesBehind = 0;
    reserveMemory();
}

void Channel::beforeAcquireData() {
    samplesThisCycle = 0;
}

void Channel::afterAcquireData() {}

void Channel::finalizeAcquisition() {
    freeMemory();
}

double Channel::scaleValue(double value) {
    return scale * value + offset;
}

double Channel::getSampleAtPos(unsigned long position) {
    return scaleValue(buffer->getSampleInDouble(position));
}

double Channel::getTimeAtPos(unsigned long position) {
    return timeBuffer->getSampleInDouble(position);
}

unsigned long Channel::getPosAtRelativePos(int relative) {
    return relativePosition(*buffer, relative);
}

double Channel::getSampleAtRelativePos(int relative) {
    return getSampleAtPos(getPosAtRelativePos(relative));
}

double Channel::getCurrentSample() {
    return getSampleAtRelativePos(-1);
}

double Channel::getTimeAtRelativePos(int relative) {
    return getTimeAtPos(relativePosition(*timeBuffer, relative));
}

double Channel::getCurrentTime() {
    return getTimeAtRelativePos(-1);
}

bool Channel::hasSamples() {
    return buffer && !buffer->isEmpty();
}

void Channel::setSRDiv(int divider) {
    if (divider > 0) {
        srDiv = divider;
    }
}

void Channel::setRate(int rate) {
    if (sampleType == SampleType::Async) {
        asyncRate = rate;
    } else if (sampleType == SampleType::Sync && rate > 0) {
        srDiv = ChannelRate::of(deviceRate, rate).divider;
    }
}

int Channel::getRate() const {
    switch (sampleType) {
        case SampleType::Sync:
            return exactRate().shown();
        case SampleType::Async:
            return asyncRate;
        case SampleType::SingleValue:
            return 1;
    }
    return deviceRate;
}

unsigned long Channel::calculateBufferCapacity() {
    const int rate = getRate();
    if (!active || rate < 1) {
        return 0;
    }
    const auto samples = static_cast<unsigned long>(2.0 * rate);
    return samples - samples % std::max<std::uint64_t>(bufferGranularity, 1);
}

void Channel::reserveMemory() {
    // setCapacity empties a buffer by itself; a store in the host's memory refuses to be reset.
    const unsigned long capacity = calculateBufferCapacity();
    if (positionBuffer) {
        positionBuffer->setCapacity(capacity);
    }
    if (buffer) {
        buffer->setCapacity(positionBuffer ? static_cast<unsigned long>(static_cast<double>(capacity) * arrayFactor)
                                           : capacity);
    }
    if (timeBuffer) {
        timeBuffer->setCapacity(capacity);
    }
}

void Channel::freeMemory() {
    for (const auto& store : {buffer, positionBuffer, timeBuffer}) {
        if (store) {
            store->setCapacity(0);
        }
    }
}

void Channel::addTimeToBuffer(double time) {
    if (!timeBuffer) {
        return;
    }
    if (std::isnan(time)) {
        throw InvalidTimestampException();
    }
    timeBuffer->addSample(&time);
}

void Channel::checkAddSample(unsigned long sampleSize, double time) {
    if (!active) {
        throw NotActiveChannelException();
    }
    if (!buffer || buffer->getSampleSize() != sampleSize) {
        throw InvalidTypeException();
    }
    if (dynamicArray) {
        throw InvalidCallException();
    }
    if (samplesThisCycle + 1 > buffer->getCapacity()) {
        throw DataLostException();
    }
    // Before anything moves: a sample without its time would put the two buffers out of step for good.
    if (timeBuffer && std::isnan(time)) {
        throw InvalidTimestampException();
    }
}

void Channel::incSamplePosition(unsigned long count) {
    if (!active) {
        throw NotActiveChannelException();
    }
    const unsigned long capacity = buffer->getCapacity();
    if (count >= capacity || samplesThisCycle >= capacity - count) {
        throw DataLostException();
    }
    buffer->incrementSamplePosition(count);
    samplesAcquired += count;
    samplesThisCycle += count;
}

void Channel::createSideBuffers() {
    if (dynamicArray) {
        positionBuffer = std::make_shared<ChannelBuffer<DynArrayPositionIndex>>();
    }
    if (sampleType == SampleType::Async) {
        timeBuffer = std::make_shared<ChannelBuffer<double>>();
    }
}

void Channel::createAnalogBuffer(int resolution) {
    if (isFloat) {
        if (resolution == 32) {
            createChannelBuffer<float>();
        } else if (resolution == 64) {
            createChannelBuffer<double>();
        } else {
            throw InvalidTypeException();
        }
    } else if (resolution < 9) {
        createChannelBuffer<signed char>();
    } else if (resolution <= 16) {
        createChannelBuffer<short>();
    } else if (resolution <= 32) {
        createChannelBuffer<int>();
    } else {
        throw InvalidTypeException();
    }
}

}  // namespace Harvane::RT::Modules::Daq
