#pragma once

#include <limits>
#include <string>

#include <zorn/structure/module.h>

namespace Harvane::RT::Core {

inline constexpr double Nan = std::numeric_limits<double>::quiet_NaN();

template <class I, class Operation>
ObjectPtr<I> made(Operation&& operation) {
    I* object = nullptr;
    checkErrorInfo(operation(&object));
    return ObjectPtr<I>::take(object);
}

inline ChannelPtr<> syncChannel(SampleDataType type, const char* id = "0", double nan = Nan) {
    return made<IChannel>(
        [&](IChannel** r) { return createSyncChannel(r, StringPtr(id).get(), static_cast<int>(type), nan); });
}

inline ChannelPtr<> asyncChannel(SampleDataType type, const char* id = "0", double nan = Nan) {
    return made<IChannel>(
        [&](IChannel** r) { return createAsyncChannel(r, StringPtr(id).get(), static_cast<int>(type), nan); });
}

inline ChannelPtr<> asyncVectorChannel(size_t dimension, const char* id = "0") {
    return made<IChannel>(
        [&](IChannel** r) { return createAsyncVectorChannel(r, StringPtr(id).get(), 8, dimension, Nan); });
}

inline AcquisitionSyncPtr newSync() {
    return made<IAcquisitionSync>([](IAcquisitionSync** r) { return createAcquisitionSync(r); });
}

// A used channel with `capacity` samples of memory.
inline void reserve(const ChannelPtr<>& channel, int64_t capacity) {
    channel.setUsed(true);
    channel.setSampleRate({capacity, 2});
    checkErrorInfo(channel->initializeAcquisition());
}

// The code of an operation, without a text left behind.
inline ErrCode codeOf(ErrCode code) {
    zornClearErrorInfo();
    return code;
}

}  // namespace Harvane::RT::Core
