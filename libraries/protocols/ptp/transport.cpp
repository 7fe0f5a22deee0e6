#include "libraries/protocols/ptp/transport.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "libraries/protocols/ptp/print.h"

namespace Harvane::Ptp {

namespace {

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy_n(path.data(), std::min(path.size(), sizeof address.sun_path - 1), address.sun_path);
    return address;
}

}  // namespace

int uds_open(uds& transport, const config* settings, const char* name) {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        print(LOG_ERR, "uds: failed to create socket: %s", std::strerror(errno));
        return -1;
    }
    const sockaddr_un own = addressOf(name);
    ::unlink(own.sun_path);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        print(LOG_ERR, "uds: bind failed: %s", std::strerror(errno));
        ::close(fd);
        return -1;
    }
    ::chmod(own.sun_path, 0660);
    transport.fd = fd;
    transport.peer = config_get_string(settings, nullptr, "uds_address");
    return 0;
}

ssize_t uds_send(uds& transport, const void* bytes, size_t size) {
    const sockaddr_un peer = addressOf(transport.peer);
    const ssize_t count = ::sendto(transport.fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                                   reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
    if (count < 0 && errno != ECONNREFUSED) {
        print(LOG_ERR, "uds: sendto failed: %s", std::strerror(errno));
    }
    return count;
}

ssize_t uds_recv(uds& transport, void* bytes, size_t size) {
    const ssize_t count = ::recvfrom(transport.fd, bytes, size, MSG_DONTWAIT | MSG_TRUNC, nullptr, nullptr);
    if (count < 0 && errno != EAGAIN) {
        print(LOG_ERR, "uds: recvfrom failed: %s", std::strerror(errno));
    }
    return count;
}

void uds_close(uds& transport) {
    const int fd = std::exchange(transport.fd, -1);
    if (fd < 0) {
        return;
    }
    sockaddr_un own{};
    socklen_t length = sizeof own;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) == 0 && own.sun_family == AF_UNIX &&
        length > offsetof(sockaddr_un, sun_path) && own.sun_path[0] != '\0') {
        own.sun_path[sizeof own.sun_path - 1] = '\0';
        ::unlink(own.sun_path);
    }
    ::close(fd);
}

}  // namespace Harvane::Ptp
