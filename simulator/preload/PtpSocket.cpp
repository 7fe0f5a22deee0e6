#include "simulator/preload/PtpSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <cstring>
#include <string>

#include "simulator/preload/Entry.h"
#include "simulator/preload/NextFunctions.h"
#include "simulator/preload/Runtime.h"

namespace kestrixsim {

namespace {

// Under the runtime's lock.
constinit int socketFd = -1;
constinit uint64_t incarnation = 0;

constinit std::atomic<bool> isActive{false};
constinit std::atomic<bool> isPending{false};

void closeSocket() {
    if (socketFd >= 0) {
        next::close(socketFd);
        socketFd = -1;
    }
}

void openSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return;
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const int low = next::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    // Far up, where it is in nobody's way.
    const int high = low >= 0 ? next::fcntl(low, F_DUPFD_CLOEXEC, 900) : -1;
    socketFd = high >= 0 ? high : low;
    if (high >= 0) {
        next::close(low);
    }
    next::unlink(path.c_str());
    if (next::bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        closeSocket();
    }
}

void follow(const PtpSocketState& wanted, const std::string& path) {
    using Kind = PtpSocketState::Kind;
    if (wanted.incarnation != incarnation) {
        closeSocket();
        incarnation = wanted.incarnation;
    }
    if (wanted.kind == Kind::Absent) {
        next::unlink(path.c_str());
    } else if (socketFd < 0) {
        openSocket(path);
        if (wanted.kind == Kind::Stale) {
            closeSocket();
        }
    }
}

void receive(Instrument& model) {
    std::array<uint8_t, 2048> bytes;
    sockaddr_un from{};
    while (socketFd >= 0) {
        socklen_t length = sizeof from;
        const ssize_t count = next::recvfrom(socketFd, bytes.data(), bytes.size(), MSG_DONTWAIT,
                                             reinterpret_cast<sockaddr*>(&from), &length);
        if (count < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                closeSocket();  // the program has closed all descriptors that it didn't know
            }
            break;
        }
        model.ptpReceive(std::string(reinterpret_cast<const char*>(&from), length), bytes.data(),
                         static_cast<size_t>(count));
    }
}

void send(Instrument& model) {
    for (const PtpDatagram& reply : model.ptpDue()) {
        // A client that has gone, or whose queue is full, misses it.
        next::sendto(socketFd, reply.bytes.data(), reply.bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                     reinterpret_cast<const sockaddr*>(reply.client.data()),
                     static_cast<socklen_t>(reply.client.size()));
    }
}

}  // namespace

void PtpSocket::turn() {
    if (Entry::inside() || !runtime::ownsProcess()) {
        return;
    }
    runtime::get();
    if (runtime::root() == nullptr) {
        return;
    }
    const Entry entry;
    const std::scoped_lock guard(runtime::lock());
    // They may have been replaced meanwhile; to look them up takes no lock once they have been made.
    Instrument& model = runtime::get();
    const std::string* root = runtime::rootInPlace();
    if (root == nullptr) {
        return;
    }
    const PtpSocketState wanted = model.ptpSocket();
    follow(wanted, *root + "/var/run/ptp4l");
    if (!wanted.hung) {
        receive(model);
        send(model);
    }
    isPending.store(socketFd >= 0 && model.ptpPending());
    isActive.store(socketFd >= 0);
}

bool PtpSocket::active() {
    return isActive.load(std::memory_order_relaxed);
}

bool PtpSocket::pending() {
    return isPending.load(std::memory_order_relaxed);
}

void PtpSocket::abandon() {
    closeSocket();
    incarnation = 0;
    isActive.store(false);
    isPending.store(false);
}

}  // namespace kestrixsim
