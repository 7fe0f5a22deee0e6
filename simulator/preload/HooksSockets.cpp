// Calls on sockets. Raw CAN sockets are the instrument's. An address of the instrument leads into the root folder, and
// back to its own name where the kernel tells it; other addresses go on as they are. What is on its way to or from the
// PTP daemon gives it its turn.

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "simulator/preload/CanSocketFile.h"
#include "simulator/preload/DescriptorTable.h"
#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Paths.h"
#include "simulator/preload/PtpSocket.h"
#include "simulator/preload/Runtime.h"

using namespace kestrixsim;

namespace {

constexpr size_t pathAt = offsetof(sockaddr_un, sun_path);

// An address as a program gives it.
class Address {
public:
    Address(const sockaddr* address, socklen_t length) : address_(address), length_(length) {
        if (address == nullptr || length <= pathAt || length > sizeof(sockaddr_un) || address->sa_family != AF_UNIX) {
            return;
        }
        char path[sizeof(sockaddr_un::sun_path) + 1] = {};
        std::memcpy(path, reinterpret_cast<const char*>(address) + pathAt, length - pathAt);
        const Location location(path);
        ours_ = location.socket();
        if (location.absent()) {
            error_ = ENOENT;
        } else if (ours_ && std::strlen(location.path()) >= sizeof rewritten_.sun_path) {
            error_ = ENAMETOOLONG;
        } else if (ours_) {
            rewritten_.sun_family = AF_UNIX;
            std::memcpy(rewritten_.sun_path, location.path(), std::strlen(location.path()));
            address_ = reinterpret_cast<const sockaddr*>(&rewritten_);
            length_ = sizeof rewritten_;
        }
    }

    bool ours() const { return ours_; }
    const sockaddr* get() const { return address_; }
    socklen_t length() const { return length_; }

    // Makes the call, unless the name can't be had: the process is ending, or the root folder makes it too long.
    template <typename Call>
    auto pass(Call&& call) const -> decltype(call()) {
        if (error_ != 0) {
            errno = error_;
            return -1;
        }
        return call();
    }

private:
    const sockaddr* address_;
    socklen_t length_;
    sockaddr_un rewritten_{};
    bool ours_ = false;
    int error_ = 0;
};

// Sends to an address, between two turns of the daemon: the first one may open or close what is sent to.
template <typename Send>
auto deliver(const Address& address, Send&& call) -> decltype(call()) {
    if (address.ours()) {
        PtpSocket::turn();
    }
    const auto result = address.pass(call);
    if (address.ours() && result >= 0) {
        PtpSocket::turn();
    }
    return result;
}

// Lets the kernel fill in an address, and gives the instrument's own name for one in the root folder.
template <typename Call>
auto withAddress(sockaddr* address, socklen_t* length, Call&& call) -> decltype(call(address, length)) {
    const std::string* root = runtime::rootInPlace();
    if (address == nullptr || length == nullptr || root == nullptr || Entry::inside()) {
        return call(address, length);
    }
    sockaddr_storage whole{};
    socklen_t size = sizeof whole;
    const auto result = call(reinterpret_cast<sockaddr*>(&whole), &size);
    if (result < 0) {
        return result;
    }
    char* path = reinterpret_cast<char*>(&whole) + pathAt;
    const size_t pathSize = size > pathAt ? size - pathAt : 0;
    if (whole.ss_family == AF_UNIX && pathSize > root->size() && std::memcmp(path, root->data(), root->size()) == 0) {
        std::memmove(path, path + root->size(), pathSize - root->size());
        size -= static_cast<socklen_t>(root->size());
    }
    std::memcpy(address, &whole, std::min(*length, size));
    *length = size;
    return result;
}

// A program that waits in the receiving call itself gets what comes late, too.
void waitForLateReply(int fd, int flags) {
    PtpSocket::turn();
    sockaddr_un own{};
    socklen_t length = sizeof own;
    if (!PtpSocket::pending() || (flags & MSG_DONTWAIT) != 0 || (next::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 ||
        next::getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) != 0 || own.sun_family != AF_UNIX) {
        return;
    }
    pollfd wait{fd, POLLIN, 0};
    while (PtpSocket::pending() && next::poll(&wait, 1, 1) == 0) {
        PtpSocket::turn();
    }
}

bool servesCan() {
    const Entry entry;
    return runtime::get().can().served();
}

ssize_t receive(int fd, void* bytes, size_t size, int flags, sockaddr* address, socklen_t* length) {
    if (PtpSocket::active() && !Entry::inside()) {
        waitForLateReply(fd, flags);
    }
    return withAddress(address, length,
                       [&](sockaddr* at, socklen_t* room) { return next::recvfrom(fd, bytes, size, flags, at, room); });
}

}  // namespace

// CAN there is only on the instrument: no such socket reaches the machine, unless the scenario says so.
KESTRIX_HOOK(int, socket, (int family, int type, int protocol)) {
    if (family == AF_CAN && !Entry::inside() && servesCan()) {
        return served([&] { return CanSocketFile::open(type, protocol); });
    }
    const int fd = next::socket(family, type, protocol);
    if (fd >= 0 && DescriptorTable::count() != 0) {
        DescriptorTable::forget(fd);
    }
    return fd;
}

KESTRIX_HOOK(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t length)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::setsockopt(fd, level, name, value, length)
                           : served([&] { return file->setOption(level, name, value, length); });
}

KESTRIX_HOOK(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* length)) {
    ServedFile* file = DescriptorTable::find(fd);
    return file == nullptr ? next::getsockopt(fd, level, name, value, length)
                           : served([&] { return file->getOption(level, name, value, length); });
}

// Names of CAN interfaces are the instrument's, those of others the machine's.
KESTRIX_HOOK(unsigned, if_nametoindex, (const char* name)) {
    int index = 0;
    if (name != nullptr && !Entry::inside()) {
        Entry entry;
        CanBus& bus = runtime::get().can();
        if (bus.ownsName(name)) {
            index = bus.indexOf(name);
            if (index < 0) {
                entry.fail(-index);
                return 0;
            }
        }
    }
    return index != 0 ? static_cast<unsigned>(index) : next::if_nametoindex(name);
}

KESTRIX_HOOK(int, bind, (int fd, const sockaddr* address, socklen_t length)) {
    if (ServedFile* file = DescriptorTable::find(fd)) {
        return served([&] { return file->bind(address, length); });
    }
    const Address target(address, length);
    return target.pass([&] { return next::bind(fd, target.get(), target.length()); });
}

KESTRIX_HOOK(int, connect, (int fd, const sockaddr* address, socklen_t length)) {
    const Address target(address, length);
    return deliver(target, [&] { return next::connect(fd, target.get(), target.length()); });
}

KESTRIX_HOOK(ssize_t, sendto,
             (int fd, const void* bytes, size_t size, int flags, const sockaddr* address, socklen_t length)) {
    const Address target(address, length);
    return deliver(target, [&] { return next::sendto(fd, bytes, size, flags, target.get(), target.length()); });
}

KESTRIX_HOOK(ssize_t, sendmsg, (int fd, const msghdr* message, int flags)) {
    if (message == nullptr || message->msg_name == nullptr) {
        return next::sendmsg(fd, message, flags);
    }
    const Address target(static_cast<const sockaddr*>(message->msg_name), message->msg_namelen);
    return deliver(target, [&] {
        msghdr rewritten = *message;
        rewritten.msg_name = const_cast<sockaddr*>(target.get());
        rewritten.msg_namelen = target.length();
        return next::sendmsg(fd, &rewritten, flags);
    });
}

KESTRIX_HOOK(ssize_t, recvfrom, (int fd, void* bytes, size_t size, int flags, sockaddr* address, socklen_t* length)) {
    return receive(fd, bytes, size, flags, address, length);
}

KESTRIX_HOOK(ssize_t, __recvfrom_chk,
             (int fd, void* bytes, size_t size, size_t room, int flags, sockaddr* address, socklen_t* length)) {
    if (size > room) {
        __builtin_trap();
    }
    return receive(fd, bytes, size, flags, address, length);
}

KESTRIX_HOOK(int, getsockname, (int fd, sockaddr* address, socklen_t* length)) {
    return withAddress(address, length, [&](sockaddr* at, socklen_t* room) { return next::getsockname(fd, at, room); });
}

KESTRIX_HOOK(int, getpeername, (int fd, sockaddr* address, socklen_t* length)) {
    return withAddress(address, length, [&](sockaddr* at, socklen_t* room) { return next::getpeername(fd, at, room); });
}

// Of the instrument's paths only sockets are made and removed by programs.
KESTRIX_HOOK(int, unlink, (const char* path)) {
    const Location location(path);
    if (location.absent()) {
        errno = ENOENT;
        return -1;
    }
    return next::unlink(location.socket() ? location.path() : path);
}

KESTRIX_HOOK(int, chmod, (const char* path, mode_t mode)) {
    const Location location(path);
    if (location.absent()) {
        errno = ENOENT;
        return -1;
    }
    return next::chmod(location.socket() ? location.path() : path, mode);
}
