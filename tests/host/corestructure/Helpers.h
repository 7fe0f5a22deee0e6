#pragma once

#include <limits>

#include <zorn/structure/module.h>

#include "tests/host/coreobjects/Objects.h"

namespace Harvane::RT::Core {

inline constexpr double Nan = std::numeric_limits<double>::quiet_NaN();

using namespace Testing;

inline ChannelPtr<> syncChannel(SampleDataType type, const char* id = "0", double nan = Nan) {
    return made<IChannel>(createSyncChannel, StringPtr(id).get(), static_cast<int>(type), nan);
}

inline ChannelPtr<> asyncChannel(SampleDataType type, const char* id = "0") {
    return made<IChannel>(createAsyncChannel, StringPtr(id).get(), static_cast<int>(type), Nan);
}

inline ChannelPtr<> asyncVectorChannel(size_t dimension, const char* id = "0") {
    return made<IChannel>(createAsyncVectorChannel, StringPtr(id).get(), 8, dimension, Nan);
}

inline AcquisitionSyncPtr newSync() {
    return made<IAcquisitionSync>(createAcquisitionSync);
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
