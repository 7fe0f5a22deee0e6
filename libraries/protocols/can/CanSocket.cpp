#include "libraries/protocols/can/CanSocket.h"

#include <fcntl.h>
#include <linux/can.h>
#include <linux/sock_diag.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace Harvane::ZornLib::Protocols::CAN {

namespace {

static_assert(sizeof(can_frame) == 16);

constexpr std::size_t longestName = 31;
constexpr std::uint64_t leastBitrate = 10000;
constexpr std::uint64_t greatestBitrate = 1000000;
constexpr std::uint32_t greatestQueue = 100000;
constexpr std::uint64_t usualRestartMs = 100;
constexpr std::size_t longestData = CAN_MAX_DLEN;

// A descriptor 0 counts as none, and select takes none from FD_SETSIZE on.
int openRaw() {
    int fd = ::socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
    if (fd == 0) {
        const int second = ::fcntl(fd, F_DUPFD_CLOEXEC, 1);
        ::close(fd);
        fd = second;
    }
    if (fd >= FD_SETSIZE) {
        ::close(fd);
        errno = EMFILE;
        return -1;
    }
    return fd;
}

std::uint64_t arrivalOf(int fd) {
    timeval time{};
    if (::ioctl(fd, SIOCGSTAMP, &time) < 0) {
        // Without a stamp it has come just now, as far as anybody knows.
        ::gettimeofday(&time, nullptr);
    }
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000 + static_cast<std::uint64_t>(time.tv_usec);
}

}  // namespace

CanSocket::CanSocket() {
    setDefaults();
    commands_.setDeviceDesignation(interfaceName_);
}

CanSocket::~CanSocket() {
    stop();
}

CanSocket::CanSocket(CanSocket&& other) noexcept : CanSocket() {
    *this = std::move(other);
}

CanSocket& CanSocket::operator=(CanSocket&& other) noexcept {
    if (this != &other) {
        stop();
        commands_ = std::move(other.commands_);
        autoRestart_ = other.autoRestart_;
        initialized_ = std::exchange(other.initialized_, false);
        interfaceName_ = std::move(other.interfaceName_);
        socketFd_ = std::exchange(other.socketFd_, 0);
        bitrate_ = other.bitrate_;
        canId_ = other.canId_;
        extendedFormat_ = other.extendedFormat_;
        restartMs_ = other.restartMs_;
        queueLength_ = other.queueLength_;
        receiveBufferSize_ = other.receiveBufferSize_;
    }
    return *this;
}

void CanSocket::setDefaults() {
    closeSocket();
    autoRestart_ = true;
    initialized_ = false;
    interfaceName_ = "can0";
    socketFd_ = -1;
    bitrate_ = 250000;
    canId_ = 0;
    extendedFormat_ = true;
    restartMs_ = usualRestartMs;
    queueLength_ = 100;
    receiveBufferSize_ = 192000;
}

std::int32_t CanSocket::validParameters() const {
    const bool valid = interfaceName_.size() <= longestName && bitrate_ >= leastBitrate &&
                       bitrate_ <= greatestBitrate && canId_ <= (extendedFormat_ ? CAN_EFF_MASK : CAN_SFF_MASK) &&
                       queueLength_ <= greatestQueue;
    return valid ? 0 : CanResult::invalidParameters;
}

std::int32_t CanSocket::initialize() {
    if (initialized_ && socketFd_ > 0) {
        return CanResult::wrongState;
    }
    initialized_ = false;
    if (const auto result = validParameters(); result < 0) {
        return result;
    }
    autoRestart_ = true;
    closeSocket();
    socketFd_ = 0;
    restartMs_ = usualRestartMs;

    std::int32_t result = commands_.runLinkSetDown();
    if (result >= 0) {
        result = commands_.runLinkSetBitrate(bitrate_);
    }
    if (result >= 0) {
        result = commands_.runLinkSetRestartTimeout(restartMs_);
    }
    if (result >= 0) {
        result = commands_.runLinkSetTxQueueLength(queueLength_);
    }
    if (result < 0) {
        return result;
    }
    commands_.runLinkSetUp();
    initialized_ = true;
    return result;
}

std::int32_t CanSocket::start() {
    if (initialize() < 0) {
        return CanResult::notInitialised;
    }
    if (socketFd_ > 0) {
        return CanResult::wrongState;
    }
    const int fd = openRaw();
    if (fd < 0) {
        return CanResult::socketFailed;
    }
    socketFd_ = fd;

    char name[IFNAMSIZ] = {};
    std::copy_n(interfaceName_.data(), std::min(interfaceName_.size(), sizeof name - 1), name);
    const unsigned index = ::if_nametoindex(name);
    if (index == 0) {
        return failClosed(CanResult::noSuchInterface);
    }
    if (::fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
        return failClosed(CanResult::notNonBlocking);
    }
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(index);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        return failClosed(CanResult::bindFailed);
    }
    const int size = static_cast<int>(receiveBufferSize_);
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) < 0) {
        return failClosed(CanResult::optionFailed);
    }
    // The kernel keeps the times of arrival for a socket from its first question on: frames that wait before it would
    // get the time at which they are read. There is no frame yet, and so no answer.
    timeval none{};
    ::ioctl(fd, SIOCGSTAMP, &none);
    return 0;
}

std::int32_t CanSocket::failClosed(std::int32_t result) {
    const int cause = errno;
    closeSocket();
    errno = cause;
    return result;
}

std::int32_t CanSocket::stop() {
    if (!initialized_) {
        return CanResult::notInitialised;
    }
    closeSocket();
    return 0;
}

void CanSocket::closeSocket() {
    if (socketFd_ > 0) {
        ::close(std::exchange(socketFd_, 0));
    }
}

std::int32_t CanSocket::send(const std::uint8_t* data, std::size_t length, std::uint32_t id) {
    if (length > longestData) {
        return CanResult::invalidParameters;
    }
    if (socketFd_ <= 0) {
        return CanResult::closed;
    }
    can_frame frame{};
    frame.can_id = id | CAN_EFF_FLAG;
    frame.can_dlc = static_cast<std::uint8_t>(length);
    std::copy_n(data, length, frame.data);
    const ssize_t written = ::write(socketFd_, &frame, sizeof frame);
    if (written < 0) {
        return errno == EAGAIN ? CanResult::wouldBlock : CanResult::writeFailed;
    }
    return written == sizeof frame ? 0 : CanResult::writeFailed;
}

std::int32_t CanSocket::receive(CanSockFrameInfo& info) {
    if (socketFd_ <= 0) {
        return CanResult::closed;
    }
    info = {};
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socketFd_, &readable);
    timeval noWait{};
    const int ready = ::select(socketFd_ + 1, &readable, nullptr, nullptr, &noWait);
    if (ready < 0) {
        std::printf("ERR_READ\n");
        return CanResult::readFailed;
    }
    if (ready == 0) {
        return CanResult::nothingToRead;
    }
    if (!FD_ISSET(socketFd_, &readable)) {
        return CanResult::readFailed;
    }
    can_frame frame{};
    if (::read(socketFd_, &frame, sizeof frame) != sizeof frame) {
        return CanResult::readFailed;
    }
    const std::uint64_t arrival = arrivalOf(socketFd_);
    if ((frame.can_id & CAN_ERR_FLAG) != 0) {
        info.errorFrame = true;
        return CanResult::errorFrame;
    }
    info.remoteRequest = (frame.can_id & CAN_RTR_FLAG) != 0;
    info.extendedFormat = (frame.can_id & CAN_EFF_FLAG) != 0;
    info.canId = frame.can_id & (info.extendedFormat ? CAN_EFF_MASK : CAN_SFF_MASK);
    info.dataLength = std::min<std::uint8_t>(frame.can_dlc, longestData);
    std::copy_n(frame.data, info.dataLength, info.data);
    info.timestamp = arrival;
    return info.dataLength;
}

std::int32_t CanSocket::getInfo(CanSockInfo& info) const {
    info = getSocketInfo();
    return 0;
}

CanSockInfo CanSocket::getSocketInfo() const {
    return {initialized_,    interfaceName_, socketFd_,    bitrate_,          canId_,
            extendedFormat_, restartMs_,     queueLength_, receiveBufferSize_};
}

void CanSocket::setSocketInfo(const CanSockInfo& info) {
    interfaceName_ = info.interfaceName;
    commands_.setDeviceDesignation(interfaceName_);
    bitrate_ = info.bitrate;
    canId_ = info.canId;
    extendedFormat_ = info.extendedFormat;
    restartMs_ = info.restartMs;
    queueLength_ = info.queueLength;
    receiveBufferSize_ = info.receiveBufferSize;
}

std::int32_t CanSocket::getSocketFd() const {
    return socketFd_ > 0 ? socketFd_ : CanResult::wrongState;
}

std::int32_t CanSocket::setBitrate(std::uint64_t bitsPerSecond) {
    bitrate_ = bitsPerSecond;
    return restart();
}

std::int32_t CanSocket::setQueueLength(std::uint32_t frames) {
    queueLength_ = frames;
    return restart();
}

std::int32_t CanSocket::restart() {
    std::int32_t result = stop();
    if (result >= 0) {
        result = initialize();
    }
    return result >= 0 ? start() : result;
}

std::int32_t CanSocket::restartCommand() const {
    return commands_.runLinkSetRestartTimeout(restartMs_);
}

std::int64_t CanSocket::getKernelDrops() const {
    std::uint32_t memory[SK_MEMINFO_VARS] = {};
    socklen_t size = sizeof memory;
    if (socketFd_ <= 0 || ::getsockopt(socketFd_, SOL_SOCKET, SO_MEMINFO, memory, &size) < 0 ||
        size <= SK_MEMINFO_DROPS * sizeof memory[0]) {
        return -1;
    }
    return memory[SK_MEMINFO_DROPS];
}

}  // namespace Harvane::ZornLib::Protocols::CAN
