#include "modules/daq/daqdevices/kestrix/src/TimingDevice.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace Harvane::RT::Modules::Daq {

TimingDevice::TimingDevice(std::string path, std::function<void(const std::string&)> log)
    : path_(std::move(path)), log_(std::move(log)), openedAt_(Clock::time_point::min()), lastRecord_(Clock::now()) {}

bool TimingDevice::read(Record& record, std::chrono::milliseconds bound) {
    const auto now = Clock::now();
    const std::optional<std::string> failure = tryToRead(record, bound, now);
    const bool came = failure && failure->empty();
    if (came) {
        lastRecord_ = now;
    }
    const bool wasSilent = std::exchange(silent_, now - lastRecord_ >= silenceLimit);
    if (failure) {
        broken_ = !came;
        report(*failure, now);
    } else if (silent_ && !wasSilent && !broken_) {
        report("no record for 3 s", now);
    }
    return came;
}

// Empty: a record. A text: what is wrong with the node. Neither: there is none yet.
std::optional<std::string> TimingDevice::tryToRead(Record& record, std::chrono::milliseconds bound,
                                                   Clock::time_point now) {
    if (!file_.isOpen()) {
        if (openedAt_ != Clock::time_point::min() && now - openedAt_ < std::chrono::seconds(1)) {
            return std::nullopt;
        }
        openedAt_ = now;
        try {
            file_ = Utils::openDevice(path_, O_RDWR);
        } catch (const std::system_error& failure) {
            return failure.what();
        }
    }
    pollfd waiting{file_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(bound.count())) <= 0) {
        return std::nullopt;
    }
    const ssize_t count = ::read(file_.get(), record.data(), sizeof(record));
    if (count == static_cast<ssize_t>(sizeof(record))) {
        return std::string();
    }
    if (count >= 0) {
        return "a record of " + std::to_string(count) + " bytes";
    }
    if (errno == EINTR || errno == EAGAIN) {
        return std::nullopt;
    }
    const std::string reason = path_ + ": " + std::strerror(errno);
    file_.close();
    openedAt_ = now;
    return reason;
}

void TimingDevice::report(const std::string& failure, Clock::time_point now) {
    const std::string text = faults_.after(failure, now);
    if (!text.empty()) {
        log_(text);
    }
}

}  // namespace Harvane::RT::Modules::Daq
