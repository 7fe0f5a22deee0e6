// poll and select. A set without a descriptor of the instrument goes on as it is. Otherwise the others are waited for
// in slices of a millisecond, and between two slices the instrument's are asked.

#include <poll.h>
#include <sys/select.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "simulator/preload/DescriptorTable.h"
#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/PtpSocket.h"
#include "simulator/preload/ServedTime.h"

using namespace kestrixsim;

namespace {

constexpr int64_t second = 1'000'000'000;

int64_t now() {
    timespec time{};
    next::clock_gettime(CLOCK_MONOTONIC, &time);
    return servedtime::nanoseconds(time);
}

// A millisecond of the program, but not so short that the machine does nothing else.
int64_t slice() {
    return std::clamp<int64_t>(servedtime::toMachine(1'000'000), 50'000, 1'000'000);
}

bool scaled() {
    return servedtime::factor() != 1.0 && !Entry::inside();
}

// A program's wait as the machine has to wait; none for none.
class Wait {
public:
    explicit Wait(const timespec* asked) : endless_(asked == nullptr || asked->tv_sec > 1'000'000'000) {
        if (!endless_) {
            time_ = servedtime::asTime(servedtime::toMachine(servedtime::nanoseconds(*asked)));
        }
    }
    const timespec* get() const { return endless_ ? nullptr : &time_; }

private:
    bool endless_;
    timespec time_{};
};

// The bound of one wait; none at all if made from null, or from a number that programs write for "endless".
class Deadline {
public:
    static constexpr time_t longest = 1'000'000'000;  // s

    explicit Deadline(const timespec* timeout)
        : endless_(timeout == nullptr || timeout->tv_sec > longest),
          end_(endless_ ? 0 : now() + servedtime::toMachine(servedtime::nanoseconds(*timeout))) {}

    int64_t left() const { return endless_ ? slice() : std::max<int64_t>(end_ - now(), 0); }

private:
    bool endless_;
    int64_t end_;
};

// Lets the PTP daemon answer what was sent to it. Whether more will come, to which the kernel wakes nobody by itself.
bool daemonIsDue() {
    if (!PtpSocket::active() || Entry::inside()) {
        return false;
    }
    PtpSocket::turn();
    return PtpSocket::pending();
}

// Whether the wait for a descriptor is to fail, which sets errno then.
bool waitFails(ServedFile& file) {
    return served([&] { return file.waitFault(); }) != 0;
}

bool anyServed(const pollfd* fds, nfds_t count) {
    if (DescriptorTable::count() == 0 || fds == nullptr) {
        return false;
    }
    return std::any_of(fds, fds + count, [](const pollfd& fd) { return DescriptorTable::find(fd.fd) != nullptr; });
}

int pollServed(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals) {
    std::unique_ptr<pollfd[]> others(new (std::nothrow) pollfd[count]);
    if (others == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    for (nfds_t i = 0; i < count; ++i) {
        others[i] = fds[i];
        if (ServedFile* file = DescriptorTable::find(fds[i].fd)) {
            if (waitFails(*file)) {
                return -1;
            }
            others[i].fd = -1;
        }
    }
    const Deadline deadline(timeout);
    for (int64_t wait = 0;; wait = std::min(slice(), deadline.left())) {
        const bool last = wait == 0 && deadline.left() == 0;
        const timespec pause{0, wait};
        daemonIsDue();
        int ready = next::ppoll(others.get(), count, &pause, signals);
        if (ready < 0) {
            return -1;
        }
        for (nfds_t i = 0; i < count; ++i) {
            ServedFile* file = others[i].fd < 0 ? DescriptorTable::find(fds[i].fd) : nullptr;
            fds[i].revents = others[i].revents;
            if (file != nullptr) {
                const Entry entry;
                fds[i].revents = static_cast<short>(file->ready() & (fds[i].events | POLLERR | POLLHUP));
                ready += fds[i].revents != 0;
            }
        }
        if (ready > 0 || last) {
            return ready;
        }
    }
}

// The three sets of select.
struct Sets {
    fd_set* readable;
    fd_set* writable;
    fd_set* exceptional;
};

bool has(const fd_set* set, int fd) {
    return set != nullptr && FD_ISSET(fd, set);
}

bool anyServed(int limit, const Sets& sets) {
    if (DescriptorTable::count() == 0) {
        return false;
    }
    for (int fd = 0; fd < std::min(limit, FD_SETSIZE); ++fd) {
        if ((has(sets.readable, fd) || has(sets.writable, fd) || has(sets.exceptional, fd)) &&
            DescriptorTable::find(fd) != nullptr) {
            return true;
        }
    }
    return false;
}

// Moves the instrument's descriptors out of `from`; what is left is for the C library.
fd_set split(int limit, fd_set* from, fd_set& mine) {
    fd_set others;
    FD_ZERO(&others);
    FD_ZERO(&mine);
    for (int fd = 0; from != nullptr && fd < limit; ++fd) {
        if (FD_ISSET(fd, from)) {
            FD_SET(fd, DescriptorTable::find(fd) != nullptr ? &mine : &others);
        }
    }
    return others;
}

int selectServed(int limit, const Sets& sets, const timespec* timeout, const sigset_t* signals, int64_t* left) {
    if (limit > FD_SETSIZE) {
        errno = EINVAL;
        return -1;
    }
    fd_set mine[3];
    const fd_set others[3] = {split(limit, sets.readable, mine[0]), split(limit, sets.writable, mine[1]),
                              split(limit, sets.exceptional, mine[2])};
    // Most of such waits are for one descriptor of the instrument, without any time: no call of the kernel in them.
    bool kernel = timeout == nullptr || signals != nullptr || timeout->tv_sec != 0 || timeout->tv_nsec != 0;
    for (int fd = 0; fd < limit; ++fd) {
        if (FD_ISSET(fd, &mine[0]) || FD_ISSET(fd, &mine[1]) || FD_ISSET(fd, &mine[2])) {
            if (ServedFile* file = DescriptorTable::find(fd); file != nullptr && waitFails(*file)) {
                return -1;
            }
        } else {
            kernel = kernel || FD_ISSET(fd, &others[0]) || FD_ISSET(fd, &others[1]) || FD_ISSET(fd, &others[2]);
        }
    }
    const Deadline deadline(timeout);
    for (int64_t wait = 0;; wait = std::min(slice(), deadline.left())) {
        const bool last = wait == 0 && deadline.left() == 0;
        fd_set result[3] = {others[0], others[1], others[2]};
        const timespec pause{0, wait};
        daemonIsDue();
        int ready = kernel ? next::pselect(limit, &result[0], &result[1], &result[2], &pause, signals) : 0;
        if (ready < 0) {
            return -1;
        }
        for (int fd = 0; fd < limit; ++fd) {
            if (!FD_ISSET(fd, &mine[0]) && !FD_ISSET(fd, &mine[1])) {
                continue;
            }
            if (ServedFile* file = DescriptorTable::find(fd)) {
                const Entry entry;
                const short events = file->ready();
                if (FD_ISSET(fd, &mine[0]) && (events & (POLLIN | POLLHUP | POLLERR)) != 0) {
                    FD_SET(fd, &result[0]);
                    ++ready;
                }
                if (FD_ISSET(fd, &mine[1]) && (events & (POLLOUT | POLLERR)) != 0) {
                    FD_SET(fd, &result[1]);
                    ++ready;
                }
            }
        }
        if (ready > 0 || last) {
            fd_set* const asked[3] = {sets.readable, sets.writable, sets.exceptional};
            for (int i = 0; i < 3; ++i) {
                if (asked[i] != nullptr) {
                    *asked[i] = result[i];
                }
            }
            if (left != nullptr) {
                *left = static_cast<int64_t>(static_cast<double>(deadline.left()) * servedtime::factor());
            }
            return ready;
        }
    }
}

int pollMilliseconds(pollfd* fds, nfds_t count, int timeoutMs) {
    const timespec timeout{timeoutMs / 1000, timeoutMs % 1000 * 1'000'000L};
    if (!daemonIsDue() && !anyServed(fds, count)) {
        return scaled() && timeoutMs > 0 ? next::ppoll(fds, count, Wait(&timeout).get(), nullptr)
                                         : next::poll(fds, count, timeoutMs);
    }
    return pollServed(fds, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

int pollTime(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals) {
    return daemonIsDue() || anyServed(fds, count)
               ? pollServed(fds, count, timeout, signals)
               : next::ppoll(fds, count, scaled() ? Wait(timeout).get() : timeout, signals);
}

}  // namespace

KESTRIX_HOOK(int, poll, (pollfd * fds, nfds_t count, int timeoutMs)) {
    return pollMilliseconds(fds, count, timeoutMs);
}

KESTRIX_HOOK(int, __poll_chk, (pollfd * fds, nfds_t count, int timeoutMs, size_t room)) {
    if (count > room / sizeof(pollfd)) {
        __builtin_trap();
    }
    return pollMilliseconds(fds, count, timeoutMs);
}

KESTRIX_HOOK(int, ppoll, (pollfd * fds, nfds_t count, const timespec* timeout, const sigset_t* signals)) {
    return pollTime(fds, count, timeout, signals);
}

KESTRIX_HOOK(int, __ppoll_chk,
             (pollfd * fds, nfds_t count, const timespec* timeout, const sigset_t* signals, size_t room)) {
    if (count > room / sizeof(pollfd)) {
        __builtin_trap();
    }
    return pollTime(fds, count, timeout, signals);
}

KESTRIX_HOOK(int, select, (int limit, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)) {
    const Sets sets{readable, writable, exceptional};
    timespec time{};
    if (timeout != nullptr) {
        time = {timeout->tv_sec, timeout->tv_usec * 1000};
    }
    if (!daemonIsDue() && !anyServed(limit, sets)) {
        return scaled() && timeout != nullptr
                   ? next::pselect(limit, readable, writable, exceptional, Wait(&time).get(), nullptr)
                   : next::select(limit, readable, writable, exceptional, timeout);
    }
    int64_t left = 0;
    const int result = selectServed(limit, sets, timeout != nullptr ? &time : nullptr, nullptr, &left);
    if (timeout != nullptr && result >= 0 && timeout->tv_sec <= Deadline::longest) {
        *timeout = {left / second, left % second / 1000};
    }
    return result;
}

KESTRIX_HOOK(int, pselect,
             (int limit, fd_set* readable, fd_set* writable, fd_set* exceptional, const timespec* timeout,
              const sigset_t* signals)) {
    const Sets sets{readable, writable, exceptional};
    return daemonIsDue() || anyServed(limit, sets) ? selectServed(limit, sets, timeout, signals, nullptr)
                                                   : next::pselect(limit, readable, writable, exceptional,
                                                                   scaled() ? Wait(timeout).get() : timeout, signals);
}
