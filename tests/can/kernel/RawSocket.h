#pragma once

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace Harvane::Test {

using Bytes = std::vector<std::uint8_t>;

inline can_frame rawFrame(canid_t id, const Bytes& data = {}) {
    can_frame frame{};
    frame.can_id = id;
    frame.can_dlc = static_cast<std::uint8_t>(data.size());
    std::copy(data.begin(), data.end(), frame.data);
    return frame;
}

inline std::int64_t microseconds(const timeval& time) {
    return time.tv_sec * std::int64_t{1000000} + time.tv_usec;
}

// As the kernel stamps frames.
inline std::int64_t realtimeUs() {
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * std::int64_t{1000000} + time.tv_nsec / 1000;
}

// Somebody else on an interface: a raw socket by the system's calls alone. Results are a count or -errno.
class RawSocket {
public:
    // Identifier of a frame behind which nothing comes: a kernel delivers soon, but not within the call that writes.
    static constexpr canid_t fence = 0x7FE;

    explicit RawSocket(const std::string& interface = "") : fd_(::socket(AF_CAN, SOCK_RAW | SOCK_NONBLOCK, CAN_RAW)) {
        if (!interface.empty()) {
            bound = bind(::if_nametoindex(interface.c_str()));
        }
    }
    ~RawSocket() { ::close(fd_); }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    int bind(unsigned index) const {
        sockaddr_can address{};
        address.can_family = AF_CAN;
        address.can_ifindex = static_cast<int>(index);
        return result(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    int write(const can_frame& frame, size_t size = sizeof(can_frame)) const {
        return result(static_cast<int>(::write(fd_, &frame, size)));
    }
    // Without waiting.
    int read(can_frame& frame, size_t size = sizeof(can_frame)) const {
        return result(static_cast<int>(::read(fd_, &frame, size)));
    }
    bool readable(int milliseconds) const {
        pollfd wait{fd_, POLLIN, 0};
        return ::poll(&wait, 1, milliseconds) == 1;
    }
    // The next one; empty if none comes.
    std::optional<can_frame> next(int milliseconds = 1000) const {
        can_frame frame{};
        return readable(milliseconds) && read(frame) == sizeof frame ? std::optional(frame) : std::nullopt;
    }
    // What comes up to the fence.
    std::vector<canid_t> ids() const {
        std::vector<canid_t> all;
        for (auto frame = next(); frame && frame->can_id != fence; frame = next()) {
            all.push_back(frame->can_id);
        }
        return all;
    }
    template <typename T>
    int set(int name, const T& value) const {
        return result(::setsockopt(fd_, SOL_CAN_RAW, name, &value, sizeof value));
    }
    // Time of the frame read last, microseconds since 1970.
    std::int64_t stamp() const {
        timeval time{};
        return ::ioctl(fd_, SIOCGSTAMP, &time) == 0 ? microseconds(time) : -errno;
    }

    int bound = 0;  // what binding in the constructor answered

private:
    static int result(int value) { return value < 0 ? -errno : value; }

    int fd_;
};

}  // namespace Harvane::Test
