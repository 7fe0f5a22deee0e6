#include "simulator/model/CanRawSocket.h"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kestrixsim {

namespace {

constexpr int largest = 212992;  // net.core.rmem_max and wmem_max
constexpr int smallestReceive = 2304;
constexpr int smallestSend = 4608;

// What is asked for, doubled: half of it is for what the kernel keeps beside the data.
int buffer(int asked, int limit, int smallest) {
    return std::max(std::min(asked < 0 ? limit : asked, limit) * 2, smallest);
}

}  // namespace

bool CanRawSocket::wants(const CanFrame& frame) const {
    if (frame.isError()) {
        return (frame.id & errorMask & CAN_ERR_MASK) != 0;
    }
    const auto matches = [&](const Filter& filter) {
        const uint32_t mask = filter.mask & ~CAN_ERR_FLAG;
        const bool inverted = (filter.id & CAN_INV_FILTER) != 0;
        return ((frame.id & mask) == (filter.id & ~CAN_INV_FILTER & mask)) != inverted;
    };
    return joinsFilters ? !filters.empty() && std::all_of(filters.begin(), filters.end(), matches)
                        : std::any_of(filters.begin(), filters.end(), matches);
}

bool CanRawSocket::deliver(const Received& received) {
    if (!hasRoom()) {
        ++drops;
        return false;
    }
    queue.push_back(received);
    return true;
}

CanRawSocket::Received CanRawSocket::take() {
    const Received oldest = queue.front();
    queue.pop_front();
    if (wantsStamps) {
        stamp = oldest.stamped ? Stamp::Taken : Stamp::Missing;
        stampAt = oldest.at;
    } else if (stamp == Stamp::Never) {
        stamp = Stamp::Missing;
    }
    return oldest;
}

int CanRawSocket::takeError() {
    return std::exchange(error, 0);
}

int CanRawSocket::setOption(int level, int name, const void* value, size_t size) {
    if (level == SOL_CAN_RAW) {
        return setRawOption(name, value, size);
    }
    if (level != SOL_SOCKET) {
        return -ENOPROTOOPT;
    }
    int number = 0;
    if (value == nullptr || size < sizeof number) {
        return value == nullptr && size >= sizeof number ? -EFAULT : -EINVAL;
    }
    std::memcpy(&number, value, sizeof number);
    return setSocketOption(name, number);
}

int CanRawSocket::setSocketOption(int name, int value) {
    constexpr int unlimited = 0x3FFFFFFF;
    switch (name) {
        case SO_RCVBUF:
            receiveBuffer = buffer(value, largest, smallestReceive);
            return 0;
        case SO_RCVBUFFORCE:
            receiveBuffer = buffer(std::max(value, 0), unlimited, smallestReceive);
            return 0;
        case SO_SNDBUF:
            sendBuffer = buffer(value, largest, smallestSend);
            return 0;
        case SO_SNDBUFFORCE:
            sendBuffer = buffer(std::max(value, 0), unlimited, smallestSend);
            return 0;
        case SO_RXQ_OVFL:
            countsDrops = value != 0;
            return 0;
        case SO_TIMESTAMP:
        case SO_TIMESTAMPNS:
            wantsStamps = wantsStamps || value != 0;
            return 0;
        default:
            return -ENOPROTOOPT;
    }
}

int CanRawSocket::setRawOption(int name, const void* value, size_t size) {
    uint32_t number = 0;
    if (value == nullptr && size != 0) {
        return -EFAULT;
    }
    if (name == CAN_RAW_FILTER) {
        constexpr size_t most = 512;
        if (size % sizeof(Filter) != 0 || size > most * sizeof(Filter)) {
            return -EINVAL;
        }
        filters.resize(size / sizeof(Filter));
        if (size != 0) {
            std::memcpy(filters.data(), value, size);
        }
        return 0;
    }
    if (size != sizeof number) {
        return -EINVAL;
    }
    std::memcpy(&number, value, sizeof number);
    switch (name) {
        case CAN_RAW_ERR_FILTER:
            errorMask = number & CAN_ERR_MASK;
            return 0;
        case CAN_RAW_LOOPBACK:
            loopback = number != 0;
            return 0;
        case CAN_RAW_RECV_OWN_MSGS:
            receivesOwn = number != 0;
            return 0;
        case CAN_RAW_JOIN_FILTERS:
            joinsFilters = number != 0;
            return 0;
        default:
            return -ENOPROTOOPT;
    }
}

int CanRawSocket::getOption(int level, int name, void* value, size_t& size) {
    const auto give = [&](const void* from, size_t bytes) {
        size = std::min(size, bytes);
        std::memcpy(value, from, size);
        return 0;
    };
    const auto giveNumber = [&](int number) { return give(&number, sizeof number); };
    if (level == SOL_CAN_RAW) {
        switch (name) {
            case CAN_RAW_FILTER:
                return give(filters.data(), filters.size() * sizeof(Filter));
            case CAN_RAW_ERR_FILTER:
                return give(&errorMask, sizeof errorMask);
            case CAN_RAW_LOOPBACK:
                return giveNumber(loopback);
            case CAN_RAW_RECV_OWN_MSGS:
                return giveNumber(receivesOwn);
            case CAN_RAW_JOIN_FILTERS:
                return giveNumber(joinsFilters);
            default:
                return -ENOPROTOOPT;
        }
    }
    if (level != SOL_SOCKET) {
        return -ENOPROTOOPT;
    }
    switch (name) {
        case SO_RCVBUF:
            return giveNumber(receiveBuffer);
        case SO_SNDBUF:
            return giveNumber(sendBuffer);
        case SO_RXQ_OVFL:
            return giveNumber(countsDrops);
        case SO_ERROR:
            return giveNumber(takeError());
        case SO_TYPE:
            return giveNumber(SOCK_RAW);
        case SO_DOMAIN:
            return giveNumber(AF_CAN);
        case SO_PROTOCOL:
            return giveNumber(CAN_RAW);
        case SO_MEMINFO: {
            // In the kernel's order: received, its limit, to send, its limit, forward, queued, options, backlog, drops.
            const std::array<uint32_t, 9> memory = {static_cast<uint32_t>(queue.size()) * frameMemory,
                                                    static_cast<uint32_t>(receiveBuffer),
                                                    static_cast<uint32_t>(sending) * frameMemory,
                                                    static_cast<uint32_t>(sendBuffer),
                                                    0,
                                                    0,
                                                    0,
                                                    0,
                                                    drops};
            return give(memory.data(), sizeof memory);
        }
        default:
            return -ENOPROTOOPT;
    }
}

}  // namespace kestrixsim
