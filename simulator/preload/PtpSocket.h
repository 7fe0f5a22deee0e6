#pragma once

namespace kestrixsim {

// The PTP daemon's end of its socket: a real datagram socket in the root folder, so that names, queues and errors are
// the kernel's. There is no thread behind it. The calls that a client makes do the daemon's work on the way: whoever
// sends has the answer queued before the call returns, and who waits gets what comes late.
class PtpSocket {
public:
    // What the daemon has to do by now: open or close its socket, answer what has come in, send what is due.
    static void turn();

    // Whether there is a socket to look after; costs one load.
    static bool active();
    // Whether something will be sent later.
    static bool pending();

    // Under the runtime's lock: lets go of the socket, whose folder belongs to another process or goes away.
    static void abandon();
};

}  // namespace kestrixsim
