#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "simulator/model/CanFrame.h"

namespace kestrixsim {

// A raw CAN socket as the kernel keeps it: its options, what it has received and not given away, what of its memory is
// in use. Knows neither ports nor time. Not thread-safe.
class CanRawSocket {
public:
    static constexpr int unbound = -1;
    static constexpr int everyPort = -2;
    // What a frame takes of a socket's memory: the buffer's head, its data with room in front, and what ends it.
    static constexpr int frameMemory = 768;

    struct Received {
        CanFrame frame;
        int64_t at;    // ns of the instrument
        bool stamped;  // whether the kernel took the time of it
    };
    enum class Stamp { Never, Missing, Taken };

    bool wants(const CanFrame& frame) const;  // by its filters
    bool hasRoom() const { return static_cast<int>(queue.size()) * frameMemory < receiveBuffer; }
    bool maySend() const { return sending * frameMemory < sendBuffer; }
    bool writable() const { return sending * frameMemory < sendBuffer / 2; }

    // False: there is no room, and the frame is lost.
    bool deliver(const Received& received);
    Received take();  // the oldest

    // The pending error, which is gone then.
    int takeError();

    int setOption(int level, int name, const void* value, size_t size);  // 0 or -errno
    int getOption(int level, int name, void* value, size_t& size);

    int port = unbound;
    int error = 0;  // pending: errno
    int sending = 0;
    std::deque<Received> queue;
    uint32_t drops = 0;
    bool wantsStamps = false;
    bool loopback = true;
    bool receivesOwn = false;
    Stamp stamp = Stamp::Never;  // of the frame read last
    int64_t stampAt = 0;         // ns of the instrument

private:
    struct Filter {
        uint32_t id;
        uint32_t mask;
    };

    int setSocketOption(int name, int value);
    int setRawOption(int name, const void* value, size_t size);

    int receiveBuffer = 212992;
    int sendBuffer = 212992;
    bool countsDrops = false;
    std::vector<Filter> filters{{0, 0}};
    bool joinsFilters = false;
    uint32_t errorMask = 0;
};

}  // namespace kestrixsim
