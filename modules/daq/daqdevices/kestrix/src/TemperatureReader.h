#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "libraries/utils/FaultReport.h"
#include "modules/daq/objectmodel/HealthState.h"

namespace Harvane::RT::Modules::Daq {

// A temperature sensor, which takes milliseconds to read, and its last value, which takes nothing. It is read only as
// long as somebody wants its values: eight times after each time that they were asked for.
class TemperatureReader {
public:
    // In the log and in HealthState::Sensor: `place` is a path or an I2C address.
    TemperatureReader(std::string group, std::string name, std::string place);
    virtual ~TemperatureReader() = default;
    TemperatureReader(const TemperatureReader&) = delete;
    TemperatureReader& operator=(const TemperatureReader&) = delete;

    // Takes as long as the sensor takes. Degrees Celsius; 0.0 where a file can't be read. Other failures are
    // exceptions.
    virtual double readTemperatureCelsius() const = 0;

    // Thread of the reader. Reads if somebody wants values. Whatever goes wrong gives 0.0 and is told once, as is its
    // end.
    void update() noexcept;
    // Wants values: eight more reads. Any thread.
    void want() { pendingReads_ = readsWanted; }
    // The same, and the last value; 0.0 before the first. Any thread; waits for no read.
    double take();
    // Any thread; waits for no read. Wants nothing.
    HealthState::Sensor state() const;

protected:
    // For readTemperatureCelsius: why it gives 0.0.
    void failed(std::string reason) const noexcept { failure_ = std::move(reason); }

private:
    static constexpr std::uint32_t readsWanted = 8;
    using Clock = std::chrono::steady_clock;

    void tell(double value) noexcept;

    std::mutex mutex_;  // of the last value: held for its copy
    std::atomic<std::uint32_t> pendingReads_{readsWanted};
    double lastValue_ = 0.0;

    // Of the reader's thread.
    mutable std::string failure_;
    Utils::FaultReport faults_;

    mutable std::mutex stateMutex_;  // held for a copy
    HealthState::Sensor state_;      // but for the age
    Clock::time_point lastRead_{};
};

}  // namespace Harvane::RT::Modules::Daq
