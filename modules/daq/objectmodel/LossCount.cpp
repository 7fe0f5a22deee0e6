#include "modules/daq/objectmodel/LossCount.h"

#include <utility>

#include "modules/daq/objectmodel/Log.h"

namespace Harvane::RT::Modules::Daq {

namespace {

constexpr auto window = std::chrono::minutes(10);
constexpr int textsInWindow = 10;

}  // namespace

void LossCount::reset() {
    count_.store(0, std::memory_order_relaxed);
    grown_ = false;
    growing_ = false;
    told_ = 0;
    texts_ = 0;
}

void LossCount::tell(bool flowed) {
    if (std::exchange(grown_, false)) {
        if (!std::exchange(growing_, true)) {
            log(words_.growing);
        }
    } else if (flowed) {
        growing_ = false;
        if (get() != told_) {
            log(words_.over);
        }
    }
}

void LossCount::log(const char* rest) {
    if (words_.growing == nullptr || rest == nullptr) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (texts_ == 0 || now - windowStart_ >= window) {
        windowStart_ = now;
        texts_ = 0;
    }
    if (texts_ == textsInWindow) {
        return;
    }
    ++texts_;
    told_ = get();
    LOG_(0, plog::error) << subject_ << " " << words_.before << " " << told_ << " " << rest;
}

}  // namespace Harvane::RT::Modules::Daq
