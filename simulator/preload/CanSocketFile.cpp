#include "simulator/preload/CanSocketFile.h"

#include <linux/sockios.h>
#include <net/if.h>
#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Opening.h"
#include "simulator/preload/ServedTime.h"

namespace kestrixsim {

constinit FilePool<CanSocketFile> CanSocketFile::pool_;

namespace {

CanBus& bus() {
    return runtime::get().can();
}

}  // namespace

int CanSocketFile::open(int type, int protocol) {
    const int flags = type & (SOCK_NONBLOCK | SOCK_CLOEXEC);
    const int number = bus().open(type & ~flags, protocol);
    if (number < 0) {
        return number;
    }
    CanSocketFile& file = pool_.take();
    file.number_.store(number, std::memory_order_relaxed);
    file.setOpened(O_RDWR | ((flags & SOCK_NONBLOCK) != 0 ? O_NONBLOCK : 0), 0);
    return giveDescriptor(file, (flags & SOCK_CLOEXEC) != 0);
}

template <typename Attempt>
ssize_t CanSocketFile::untilDone(Attempt&& attempt) {
    for (;;) {
        const ssize_t result = attempt();
        if (result != -EAGAIN || nonBlocking()) {
            return result;
        }
        const timespec pause{0, 200'000};
        if (const int error = next::clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr)) {
            return -error;
        }
    }
}

ssize_t CanSocketFile::read(void* buffer, size_t size) {
    return untilDone([&] { return bus().read(number(), buffer, size); });
}

ssize_t CanSocketFile::write(const void* buffer, size_t size) {
    return untilDone([&] { return bus().write(number(), buffer, size); });
}

int CanSocketFile::control(uint32_t request, uintptr_t argument) {
    auto* target = reinterpret_cast<void*>(argument);
    if (request == SIOCGIFINDEX && target != nullptr) {
        ifreq& asked = *static_cast<ifreq*>(target);
        const std::string name(asked.ifr_name, strnlen(asked.ifr_name, sizeof asked.ifr_name));
        const int index = bus().indexOf(name);
        asked.ifr_ifindex = index > 0 ? index : asked.ifr_ifindex;
        return index > 0 ? 0 : index;
    }
    if (request != SIOCGSTAMP && request != SIOCGSTAMPNS) {
        return -ENOTTY;
    }
    if (target == nullptr) {
        return -EFAULT;
    }
    double at = 0.0;
    if (const int result = bus().stamp(number(), at); result != 0) {
        return result;
    }
    const Instrument& instrument = runtime::get();
    const timespec time = servedtime::asTime(servedtime::realtimeAt(instrument, at));
    if (request == SIOCGSTAMP) {
        *static_cast<timeval*>(target) = {time.tv_sec, time.tv_nsec / 1000};
    } else {
        *static_cast<timespec*>(target) = time;
    }
    return 0;
}

short CanSocketFile::ready() {
    return bus().ready(number());
}

int CanSocketFile::waitFault() {
    return bus().waitFault(number());
}

int CanSocketFile::flagsFault() {
    return bus().flagsFault(number());
}

int CanSocketFile::bind(const sockaddr* address, socklen_t length) {
    return bus().bind(number(), address, length);
}

int CanSocketFile::setOption(int level, int name, const void* value, socklen_t length) {
    return bus().setOption(number(), level, name, value, length);
}

int CanSocketFile::getOption(int level, int name, void* value, socklen_t* length) {
    if (value == nullptr || length == nullptr) {
        return -EFAULT;
    }
    size_t size = *length;
    const int result = bus().getOption(number(), level, name, value, size);
    *length = result == 0 ? static_cast<socklen_t>(size) : *length;
    return result;
}

void CanSocketFile::recycle() {
    // A forked child has an instrument of its own or none yet; neither knows this socket.
    if (Instrument* instrument = runtime::existing()) {
        instrument->can().close(number());
    }
    pool_.giveBack(*this);
}

}  // namespace kestrixsim
