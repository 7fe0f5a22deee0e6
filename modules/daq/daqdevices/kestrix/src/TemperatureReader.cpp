#include "modules/daq/daqdevices/kestrix/src/TemperatureReader.h"

#include <cmath>
#include <exception>
#include <utility>

#include "shared/libraries/kestrix/src/logger/KestrixLogger.h"

namespace Harvane::RT::Modules::Daq {

namespace {

constexpr int failureLevel = 5;

}  // namespace

TemperatureReader::TemperatureReader(std::string group, std::string name, std::string place)
    : faults_("temperature sensor " + place + ": ", "temperature sensor " + place) {
    state_.group = std::move(group);
    state_.name = std::move(name);
    state_.place = std::move(place);
}

void TemperatureReader::update() noexcept {
    if (pendingReads_ == 0) {
        return;
    }
    double value = 0.0;
    try {
        failure_.clear();
        value = readTemperatureCelsius();
        if (!std::isfinite(value)) {
            failed("its reading is no temperature");
        }
    } catch (const std::exception& exception) {
        failed(exception.what());
    } catch (...) {
        failed("unknown failure");
    }
    // Nobody else takes away from it.
    --pendingReads_;
    tell(value);
    const std::lock_guard<std::mutex> guard(mutex_);
    lastValue_ = value;
}

void TemperatureReader::tell(double value) noexcept {
    try {
        const auto now = Clock::now();
        {
            const std::lock_guard<std::mutex> guard(stateMutex_);
            ++state_.reads;
            state_.failures += failure_.empty() ? 0 : 1;
            state_.ok = failure_.empty();
            state_.celsius = value;
            state_.reason = failure_;
            lastRead_ = now;
        }
        const std::string text = faults_.after(failure_, now);
        if (!text.empty()) {
            KESTRIX_LOG(failureLevel, "{}", text);
        }
    } catch (...) {
        // No memory for words.
    }
}

double TemperatureReader::take() {
    want();
    const std::lock_guard<std::mutex> guard(mutex_);
    return lastValue_;
}

HealthState::Sensor TemperatureReader::state() const {
    const std::lock_guard<std::mutex> guard(stateMutex_);
    HealthState::Sensor state = state_;
    if (state.reads > 0) {
        state.ageSeconds = std::chrono::duration<double>(Clock::now() - lastRead_).count();
    }
    return state;
}

}  // namespace Harvane::RT::Modules::Daq
