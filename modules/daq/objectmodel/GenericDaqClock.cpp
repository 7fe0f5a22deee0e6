#include "modules/daq/objectmodel/GenericDaqClock.h"

#include <algorithm>
#include <chrono>

#include "modules/daq/objectmodel/Channel.h"
#include "modules/daq/objectmodel/DaqDevice.h"

namespace Harvane::RT::Modules::Daq {

namespace {

std::int64_t steadyNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

void GenericDaqClock::initializeAcquisition() {
    Channels sources;
    std::vector<std::uint64_t> dividers;
    int baseRate = 0;
    if (auto device = getDaqDevice()) {
        baseRate = device->rate;
        sources = device->getAllChannels().getActiveChannels().getChannelsBySampleType(SampleType::Sync);
        for (const auto& channel : sources) {
            dividers.push_back(static_cast<std::uint64_t>(std::max(channel->srDiv, 1)));
        }
    }
    std::lock_guard<std::mutex> guard(mutex_);
    clockChannels_ = sources;
    dividers_ = std::move(dividers);
    baseRate_ = baseRate;
    startTime_ = 0;
}

void GenericDaqClock::startAcquisition() {
    std::lock_guard<std::mutex> guard(mutex_);
    startTime_ = steadyNow();
}

double GenericDaqClock::getCurrentTime(bool) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (clockChannels_.empty()) {
        return startTime_ > 0 ? static_cast<double>(steadyNow() - startTime_) / 1e9 : -1.0;
    }
    std::uint64_t samples = 0;
    for (size_t i = 0; i < clockChannels_.size(); ++i) {
        samples = std::max(samples, dividers_[i] * clockChannels_[i]->samplesAcquired.get());
    }
    return samples > 0 && baseRate_ > 0 ? static_cast<double>(samples) / baseRate_ : -1.0;
}

}  // namespace Harvane::RT::Modules::Daq
