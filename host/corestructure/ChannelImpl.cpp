// Host channels of all four kinds: synchronous or asynchronous, of numbers or of vectors.

#include <atomic>

#include <zorn/structure/channel.h>

#include "host/corestructure/ChannelBufferImpl.h"
#include "host/corestructure/NodeImpl.h"

namespace Harvane::RT::Core {

namespace {

constexpr int SyncType = 0;
constexpr int AsyncType = 1;
constexpr const char* BufferMultipleProp = "BufferSizeIsMultipleOf";

// Settings live in the property engine and belong to the configuration thread. What the cycle and readers of other
// threads need is kept beside: active state, scale and offset as atomic numbers, the ring in its own object.
class ChannelImpl final : public NodeImpl<IChannel, IAsyncChannel> {
public:
    ChannelImpl(IString* id, int type, SampleDataType dataType, size_t dimension, double nan)
        : NodeImpl(ChannelPropertyClass::ClassName, NodeType::Channel, id),
          type_(type),
          dataType_(dataType),
          dimension_(dimension),
          buffer_(new ChannelBufferImpl(dataType, dimension, type == AsyncType, nan)),
          bufferHolder_(ObjectPtr<IChannelBuffer>::take(buffer_)) {
        startValue(NodePropertyClass::NodeTypeProp, NodeType::Channel);
        startValue(ChannelNodePropertyClass::ChannelNodeTypeProp, ChannelNodeType::Channel);
        if (id != nullptr) {
            startValue(ChannelPropertyClass::ChannelIdProp, StringPtr(id));
        }
        startValue(ChannelPropertyClass::SampleDataTypeProp, dataType);
        startValue(ChannelPropertyClass::DimensionProp, dimension);
        startValue(ChannelPropertyClass::TypeProp, type);
        // The class defaults to 0, which would blank every value.
        startValue(ChannelPropertyClass::ScaleProp, 1.0);
        startValue(ChannelPropertyClass::OffsetProp, 0.0);
    }

    // ---- Node ----

    ErrCode getName(IString** name) override { return getText(ChannelNodePropertyClass::NameProp, name); }
    ErrCode setName(IString* name) override { return setText(ChannelNodePropertyClass::NameProp, name); }
    ErrCode getChannelNodeType(ChannelNodeType* type) override { return handOut(ChannelNodeType::Channel, type); }

    // ---- Properties ----

    ErrCode getUsed(unsigned char* used) override {
        return getTyped<unsigned char, bool>(ChannelPropertyClass::UsedProp, used);
    }
    ErrCode setUsed(unsigned char used) override { return setTyped(ChannelPropertyClass::UsedProp, used != 0); }
    ErrCode getUnit(IString** unit) override { return getText(ChannelPropertyClass::UnitProp, unit); }
    ErrCode setUnit(IString* unit) override { return setText(ChannelPropertyClass::UnitProp, unit); }
    ErrCode getScale(double* scale) override { return getTyped(ChannelPropertyClass::ScaleProp, scale); }
    ErrCode setScale(double scale) override { return setTyped(ChannelPropertyClass::ScaleProp, scale); }
    ErrCode getOffset(double* offset) override { return getTyped(ChannelPropertyClass::OffsetProp, offset); }
    ErrCode setOffset(double offset) override { return setTyped(ChannelPropertyClass::OffsetProp, offset); }
    ErrCode getMinValue(double* value) override { return getTyped(ChannelPropertyClass::MinValueProp, value); }
    ErrCode setMinValue(double value) override { return setTyped(ChannelPropertyClass::MinValueProp, value); }
    ErrCode getMaxValue(double* value) override { return getTyped(ChannelPropertyClass::MaxValueProp, value); }
    ErrCode setMaxValue(double value) override { return setTyped(ChannelPropertyClass::MaxValueProp, value); }
    ErrCode getSampleRate(IRatio** rate) override {
        if (rate == nullptr) {
            return argumentNull();
        }
        *rate = nullptr;
        return guarded(
            [&] { *rate = toValue(valueOf<Ratio>(ChannelPropertyClass::SampleRateProp)).asPtr<IRatio>().detach(); });
    }
    ErrCode setSampleRate(IRatio* rate) override {
        if (rate == nullptr) {
            return argumentNull();
        }
        return guarded(
            [&] { checkErrorInfo(setProperty(StringPtr(ChannelPropertyClass::SampleRateProp).get(), rate)); });
    }
    ErrCode getChannelId(IString** id) override { return getText(ChannelPropertyClass::ChannelIdProp, id); }

    ErrCode setProperty(IString* name, IBaseObject* value) override {
        const ErrCode code = NodeImpl::setProperty(name, value);
        refreshScaling(name);  // stored even when a listener failed
        return code;
    }
    ErrCode clearProperty(IString* name) override {
        const ErrCode code = NodeImpl::clearProperty(name);
        refreshScaling(name);
        return code;
    }

    // ---- Acquisition ----

    ErrCode getActive(unsigned char* active) override {
        const int latched = active_.load(std::memory_order_acquire);
        return latched == NotLatched ? getUsed(active) : handOut(static_cast<unsigned char>(latched), active);
    }
    ErrCode initialize() override { return Errors::Success; }
    ErrCode initializeAcquisition() override {
        return guarded([&] {
            const bool used = valueOf<bool>(ChannelPropertyClass::UsedProp);
            active_.store(used ? 1 : 0, std::memory_order_release);
            const bool wanted = used && valueOf<bool>(ChannelPropertyClass::ShouldReserveMemoryProp);
            // The analyzer takes the release of a value's reference for that of the buffer's.
            // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete)
            buffer_->reserve(wanted ? ringCapacity(ringRate(), bufferMultiple()) : 0);
        });
    }
    ErrCode startAcquisition() override { return Errors::Success; }
    ErrCode stopAcquisition() override { return Errors::Success; }
    ErrCode finalizeAcquisition() override {
        active_.store(NotLatched, std::memory_order_release);
        return Errors::Success;
    }

    ErrCode getBuffer(IChannelBuffer** buffer) override { return handOut(bufferHolder_, buffer); }
    ErrCode getSamplesAcquired(long* count) override { return handOut(buffer_->acquired(), count); }
    ErrCode incrementSamplePosition(size_t count) override { return buffer_->increment(count); }
    ErrCode getCurrentSample(double* value) override { return getSampleAtRelativePos(-1, value); }
    ErrCode getSampleAtPos(size_t position, double* value) override {
        return scaled(buffer_->rawValue(position, value), value);
    }
    ErrCode getSampleAtRelativePos(int position, double* value) override {
        return scaled(buffer_->rawValueRelative(position, value), value);
    }
    ErrCode hasSamples(unsigned char* has) override {
        return handOut(static_cast<unsigned char>(buffer_->filled() != 0 ? 1 : 0), has);
    }
    ErrCode scaleValue(double raw, double* value) override { return handOut(scaledNumber(raw), value); }
    ErrCode getSampleDataType(SampleDataType* type) override { return handOut(dataType_, type); }
    ErrCode getDimension(size_t* dimension) override { return handOut(dimension_, dimension); }
    ErrCode getType(int* type) override { return handOut(type_, type); }

    // ---- Asynchronous channels ----

    ErrCode addSample(long timestamp, const void* sample) override { return buffer_->addSample(timestamp, sample); }
    ErrCode getTimestampAtPos(size_t position, long* timestamp) override {
        return buffer_->timestampAt(position, timestamp);
    }
    ErrCode getSampleAddressAtPos(size_t position, void** sample) override {
        return buffer_->getSample(position, sample);
    }

protected:
    std::string_view requiredBaseClass() const override { return ChannelPropertyClass::ClassName; }

    void* findInterface(IntfID id) override {
        if (id == IAsyncChannel::Id && type_ != AsyncType) {
            return nullptr;
        }
        return NodeImpl::findInterface(id);
    }

private:
    static constexpr int NotLatched = -1;

    double scaledNumber(double raw) const {
        return raw * scale_.load(std::memory_order_relaxed) + offset_.load(std::memory_order_relaxed);
    }
    ErrCode scaled(ErrCode code, double* value) const {
        if (succeeded(code)) {
            *value = scaledNumber(*value);  // a NaN stays one
        }
        return code;
    }

    void refreshScaling(IString* name) {
        if (name == nullptr) {
            return;
        }
        const char* text = nullptr;
        if (failed(name->getCharPtr(&text))) {
            return;
        }
        const bool isScale = ChannelPropertyClass::ScaleProp == std::string_view(text);
        if (!isScale && ChannelPropertyClass::OffsetProp != std::string_view(text)) {
            return;
        }
        IBaseObject* value = nullptr;
        double number = 0.0;
        try {
            checkErrorInfo(NodeImpl::getProperty(name, &value));
            number = fromValue<double>(BasePtr::take(value));
        } catch (const std::exception&) {
            return;  // no number: the last one holds
        }
        (isScale ? scale_ : offset_).store(number, std::memory_order_relaxed);
    }

    // 0 for a channel that has no rate yet.
    Ratio ringRate() {
        try {
            return ChannelPtr<>(this).getExactSampleRate();
        } catch (const NotAssignedException&) {
            return {0, 1};
        }
    }

    int64_t bufferMultiple() {
        try {
            return valueOf<int64_t>(BufferMultipleProp);
        } catch (const NotFoundException&) {
            return 1;
        }
    }

    const int type_;
    const SampleDataType dataType_;
    const size_t dimension_;
    ChannelBufferImpl* const buffer_;
    const ObjectPtr<IChannelBuffer> bufferHolder_;
    std::atomic<int> active_{NotLatched};
    std::atomic<double> scale_{1.0};
    std::atomic<double> offset_{0.0};
};

ErrCode createChannel(IChannel** channel, IString* id, int type, int dataType, size_t dimension, double nan,
                      bool isVector) {
    const auto element = static_cast<SampleDataType>(dataType);
    if (elementSize(element) == 0) {
        return makeError(Errors::InvalidParameter, "There is no sample type of that number");
    }
    if (!isVector && element == SampleDataType::Opaque) {
        return makeError(Errors::InvalidParameter, "Opaque bytes are samples of vector channels only");
    }
    if (dimension == 0 || dimension > (size_t{1} << 24)) {
        return makeError(Errors::InvalidParameter, "A vector has 1 to 2^24 elements");
    }
    return createObject<ChannelImpl>(channel, id, type, element, dimension, nan);
}

}  // namespace

ErrCode createSyncChannel(IChannel** channel, IString* id, int dataType, double nan) {
    return createChannel(channel, id, SyncType, dataType, 1, nan, false);
}

ErrCode createAsyncChannel(IChannel** channel, IString* id, int dataType, double nan) {
    return createChannel(channel, id, AsyncType, dataType, 1, nan, false);
}

ErrCode createSyncVectorChannel(IChannel** channel, IString* id, int dataType, size_t dimension, double nan) {
    return createChannel(channel, id, SyncType, dataType, dimension, nan, true);
}

ErrCode createAsyncVectorChannel(IChannel** channel, IString* id, int dataType, size_t dimension, double nan) {
    return createChannel(channel, id, AsyncType, dataType, dimension, nan, true);
}

}  // namespace Harvane::RT::Core
