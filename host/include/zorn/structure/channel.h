#pragma once

#include <cmath>

#include <zorn/structure/node.h>

// Host channels and their sample rings.
namespace Harvane::RT::Core {

// Codes of the host for the type of one sample.
enum class SampleDataType : int32_t {
    Float64 = 0,
    Int32 = 1,
    Int16 = 2,
    Int8 = 3,
    Float32 = 4,
    Opaque = 8,  // one byte, only as element of a vector channel: dimension bytes make a sample
};

// A sample ring of the host. Index and position count samples; slot i stands at byte i * sample size. The newest sample
// stands before the position, wrapping. Address and capacity stay unchanged while an acquisition runs.
class IChannelBuffer : public IBaseObject {
    ZORN_INTERFACE(IChannelBuffer, IBaseObject)

    virtual ErrCode getData(void** data) = 0;
    virtual ErrCode getCapacity(size_t* capacity) = 0;
    virtual ErrCode getSize(size_t* size) = 0;
    virtual ErrCode getPosition(size_t* position) = 0;  // slot of the next write
    virtual ErrCode getSampleSize(size_t* bytes) = 0;
    virtual ErrCode isEmpty(unsigned char* empty) = 0;
    virtual ErrCode getSample(size_t position, void** sample) = 0;          // OutOfRange beyond the capacity
    virtual ErrCode getSampleInDouble(size_t position, double* value) = 0;  // the raw number, never scaled
};

class IChannelBufferV2 : public IBaseObject {
    ZORN_INTERFACE(IChannelBufferV2, IBaseObject)

    // Address of the live write position, valid as long as the buffer object. Written by incrementSamplePosition only.
    virtual ErrCode getPositionPointer(size_t** position) = 0;
};

class IChannel : public IChannelNode {
    ZORN_INTERFACE(IChannel, IChannelNode)

    // `Used`, as initializeAcquisition has found it and until finalizeAcquisition; outside of that the wish of now.
    virtual ErrCode getActive(unsigned char* active) = 0;
    virtual ErrCode getUsed(unsigned char* used) = 0;
    virtual ErrCode setUsed(unsigned char used) = 0;
    virtual ErrCode getUnit(IString** unit) = 0;
    virtual ErrCode setUnit(IString* unit) = 0;
    virtual ErrCode getScale(double* scale) = 0;
    virtual ErrCode setScale(double scale) = 0;
    virtual ErrCode getOffset(double* offset) = 0;
    virtual ErrCode setOffset(double offset) = 0;
    virtual ErrCode getMinValue(double* value) = 0;
    virtual ErrCode setMinValue(double value) = 0;
    virtual ErrCode getMaxValue(double* value) = 0;
    virtual ErrCode setMaxValue(double value) = 0;
    virtual ErrCode getBuffer(IChannelBuffer** buffer) = 0;
    virtual ErrCode getSamplesAcquired(long* count) = 0;  // since initializeAcquisition; any thread
    // `count` samples have been written behind the position; below the capacity. Cycle thread.
    virtual ErrCode incrementSamplePosition(size_t count) = 0;
    virtual ErrCode getSampleRate(IRatio** rate) = 0;
    virtual ErrCode setSampleRate(IRatio* rate) = 0;  // through the property "SampleRate", so that it fires
    virtual ErrCode getChannelId(IString** id) = 0;
    virtual ErrCode initialize() = 0;
    // Latches active, reserves memory (2 s of the exact rate, a multiple of "BufferSizeIsMultipleOf"; page aligned,
    // zeroed) when active and "ShouldReserveMemory", otherwise capacity 0; sets position, size and count to 0. Module
    // thread.
    virtual ErrCode initializeAcquisition() = 0;
    virtual ErrCode startAcquisition() = 0;
    virtual ErrCode stopAcquisition() = 0;
    virtual ErrCode finalizeAcquisition() = 0;            // the memory stays until the next initializeAcquisition
    virtual ErrCode getCurrentSample(double* value) = 0;  // scaled; the channel's NaN without samples
    virtual ErrCode getSampleAtPos(size_t position, double* value) = 0;
    virtual ErrCode getSampleAtRelativePos(int position, double* value) = 0;  // -1 is the newest
    virtual ErrCode hasSamples(unsigned char* has) = 0;
    virtual ErrCode scaleValue(double raw, double* value) = 0;
    virtual ErrCode getSampleDataType(SampleDataType* type) = 0;
    virtual ErrCode getDimension(size_t* dimension) = 0;
    virtual ErrCode getType(int* type) = 0;  // 0 synchronous, 1 asynchronous
};

class IAsyncChannel : public IBaseObject {
    ZORN_INTERFACE(IAsyncChannel, IBaseObject)

    // Samples added since the start of the acquisition, never the ring's fill.
    virtual ErrCode getSamplesAcquired(long* count) = 0;
    // Copies one sample and its time stamp (ticks of 1 ns since the start); overwrites the oldest silently.
    virtual ErrCode addSample(long timestamp, const void* sample) = 0;
    virtual ErrCode getTimestampAtPos(size_t position, long* timestamp) = 0;
    virtual ErrCode getSampleAddressAtPos(size_t position, void** sample) = 0;
    virtual ErrCode getBuffer(IChannelBuffer** buffer) = 0;
};

// A ratio (samples per second) that a module may give its channels, hidden and read-only.
inline constexpr const char* ExactSampleRateProp = "ExactSampleRate";

// Identifier, sample type, vector dimension (bytes), value of numeric reads without a sample.
ZORN_FUNCTION ErrCode createSyncChannel(IChannel** channel, IString* id, int dataType, double nan);
ZORN_FUNCTION ErrCode createAsyncChannel(IChannel** channel, IString* id, int dataType, double nan);
ZORN_FUNCTION ErrCode createSyncVectorChannel(IChannel** channel, IString* id, int dataType, size_t dimension,
                                              double nan);
ZORN_FUNCTION ErrCode createAsyncVectorChannel(IChannel** channel, IString* id, int dataType, size_t dimension,
                                               double nan);

template <class I = IChannelBuffer>
class ChannelBufferPtr : public ObjectPtr<I> {
public:
    using ObjectPtr<I>::ObjectPtr;
    ChannelBufferPtr(ObjectPtr<I>&& other) : ObjectPtr<I>(std::move(other)) {}
    void* getData() const { return this->read(&IChannelBuffer::getData); }
    size_t getCapacity() const { return this->read(&IChannelBuffer::getCapacity); }
    size_t getSize() const { return this->read(&IChannelBuffer::getSize); }
    size_t getPosition() const { return this->read(&IChannelBuffer::getPosition); }
    size_t getSampleSize() const { return this->read(&IChannelBuffer::getSampleSize); }
    bool isEmpty() const { return this->read(&IChannelBuffer::isEmpty) != 0; }
    void* getSample(size_t position) const {
        return this->template read<void*>([&](void** r) { return this->checked()->getSample(position, r); });
    }
    double getSampleInDouble(size_t position) const {
        return this->template read<double>([&](double* r) { return this->checked()->getSampleInDouble(position, r); });
    }
};

template <class I = IChannel>
class ChannelPtr : public ChannelNodePtr<I> {
public:
    using ChannelNodePtr<I>::ChannelNodePtr;
    ChannelPtr(const ObjectPtr<I>& other) : ChannelNodePtr<I>(other) {}
    ChannelPtr(ObjectPtr<I>&& other) : ChannelNodePtr<I>(std::move(other)) {}
    bool getActive() const { return this->read(&IChannel::getActive) != 0; }
    bool getUsed() const { return this->read(&IChannel::getUsed) != 0; }
    void setUsed(bool used) const { checkErrorInfo(this->checked()->setUsed(used ? 1 : 0)); }
    StringPtr getUnit() const { return this->fetch(&IChannel::getUnit); }
    void setUnit(const StringPtr& unit) const { checkErrorInfo(this->checked()->setUnit(unit.get())); }
    double getScale() const { return this->read(&IChannel::getScale); }
    void setScale(double value) const { checkErrorInfo(this->checked()->setScale(value)); }
    double getOffset() const { return this->read(&IChannel::getOffset); }
    void setOffset(double value) const { checkErrorInfo(this->checked()->setOffset(value)); }
    double getMinValue() const { return this->read(&IChannel::getMinValue); }
    void setMinValue(double value) const { checkErrorInfo(this->checked()->setMinValue(value)); }
    double getMaxValue() const { return this->read(&IChannel::getMaxValue); }
    void setMaxValue(double value) const { checkErrorInfo(this->checked()->setMaxValue(value)); }
    ChannelBufferPtr<> getBuffer() const { return this->fetch(&IChannel::getBuffer); }
    long getSamplesAcquired() const { return this->read(&IChannel::getSamplesAcquired); }
    Ratio getSampleRate() const { return fromValue<Ratio>(asBase(this->fetch(&IChannel::getSampleRate))); }
    // Samples per second as they arrive. The rate shown is cut off to a whole number where a clock divides to none; a
    // module that knows better says so in "ExactSampleRate".
    Ratio getExactSampleRate() const {
        if (this->hasProperty(ExactSampleRateProp)) {
            const auto exact = fromValue<Ratio>(this->template getPropertyValue<BasePtr>(ExactSampleRateProp));
            if (exact.numerator > 0 && exact.denominator > 0) {
                return exact;
            }
        }
        return getSampleRate();
    }
    void setSampleRate(const Ratio& rate) const {
        checkErrorInfo(this->checked()->setSampleRate(toValue(rate).template asPtr<IRatio>().get()));
    }
    double getSampleAtRelativePos(int position) const {
        return this->template read<double>(
            [&](double* r) { return this->checked()->getSampleAtRelativePos(position, r); });
    }
    SampleDataType getSampleDataType() const { return this->read(&IChannel::getSampleDataType); }
    int getType() const { return this->read(&IChannel::getType); }
    size_t getDimension() const { return this->read(&IChannel::getDimension); }
};

using AsyncChannelPtr = ObjectPtr<IAsyncChannel>;

}  // namespace Harvane::RT::Core
