#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "libraries/utils/DeviceFile.h"
#include "libraries/utils/FaultReport.h"

namespace Harvane::RT::Modules::Daq {

// The timing driver's node: a record for each pulse of the reference, and one a second without a reference. It may be
// missing, fall silent or vanish: nothing here waits longer than it is told, each cause is logged once and so is the
// return, and a node that is not there is opened again, at most once a second. One thread.
class TimingDevice {
public:
    using Record = std::array<std::uint32_t, 3>;  // unused, phase, frequency
    static constexpr std::chrono::seconds silenceLimit{3};

    // `log`: one text for each change.
    TimingDevice(std::string path, std::function<void(const std::string&)> log);

    // False when no whole record came within the bound, whatever the reason.
    bool read(Record& record, std::chrono::milliseconds bound);
    // Whether no record has come for three seconds.
    bool isSilent() const { return silent_; }

private:
    using Clock = std::chrono::steady_clock;

    std::optional<std::string> tryToRead(Record& record, std::chrono::milliseconds bound, Clock::time_point now);
    void report(const std::string& failure, Clock::time_point now);

    const std::string path_;
    const std::function<void(const std::string&)> log_;
    Utils::DeviceFile file_;
    Clock::time_point openedAt_;
    Clock::time_point lastRecord_;
    bool silent_ = false;
    bool broken_ = false;  // the last news was a failure
    Utils::FaultReport faults_{"The timing device"};
};

}  // namespace Harvane::RT::Modules::Daq
