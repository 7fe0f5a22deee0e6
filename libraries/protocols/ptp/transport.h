#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "libraries/protocols/ptp/config.h"

namespace Harvane::Ptp {

enum transport_type { TRANS_UDS = 0 };  // a Unix datagram socket, the only one that a daemon on this machine needs

// The way to the daemon: a datagram socket with a name of its own, so that answers find back.
struct uds {
    int fd = -1;
    std::string peer;  // path of the daemon's socket
};

// Makes the socket, in place of what an earlier process left at `name`. Paths are cut at 107 characters. 0 or -1.
int uds_open(uds& transport, const config* settings, const char* name);

// Neither ever waits: a daemon that stands still, with its queue full, must not hold up who asks. Bytes moved, or -1.
// A daemon that isn't there is no failure worth a message; the question just gets no answer. Every request goes to the
// daemon's address, whoever has sent us something meanwhile.
ssize_t uds_send(uds& transport, const void* bytes, size_t size);
// The size of the datagram even when that is more than `size`, and then the buffer holds its beginning.
ssize_t uds_recv(uds& transport, void* bytes, size_t size);

// Closes the socket and removes its name.
void uds_close(uds& transport);

}  // namespace Harvane::Ptp
