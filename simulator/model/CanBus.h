#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "simulator/model/CanFrame.h"
#include "simulator/model/Clock.h"
#include "simulator/model/Faults.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

class CanNetwork;

struct CanRecord {
    CanFrame frame;
    double at;  // s of the instrument's time: end of the frame on the wire
};

// What `ip -details -statistics link show` would say of a port.
struct CanPortState {
    std::string name{};
    bool exists = false;
    bool up = false;
    uint32_t bitrate = 0;  // 0 until one has been set
    bool listenOnly = false;
    uint32_t txQueueLength = 0;
    uint32_t restartMs = 0;  // 0: stays off
    bool busOff = false;
    uint64_t received = 0;     // frames heard, since the start
    uint64_t sent = 0;         // frames put on the bus
    uint64_t dropped = 0;      // frames that a socket had no room for
    uint64_t sendDropped = 0;  // frames that a program wrote and nobody sent: listen-only, bus off, taken down
    size_t queueLength = 0;    // frames that wait now, the one in the controller included
};

// The CAN ports of the instrument, the buses that they hang on, the virtual nodes there, and the sockets that programs
// have on the ports. Written after the Linux kernel's raw CAN sockets. Thread-safe, without a thread: a call first lets
// happen what should have happened by now. A port is the place of its interface in the scenario, from 0.
class CanBus {
public:
    CanBus(const Clock& clock, Faults& faults, const Scenario& scenario);
    ~CanBus();
    CanBus(const CanBus&) = delete;
    CanBus& operator=(const CanBus&) = delete;

    // ---- For tests and tools: std::out_of_range for a port that the scenario has none of ----------------------------

    // A virtual node on that port's bus offers a frame from `at` on, which may lie ahead. Each frame comes from a node
    // of its own: several that wait are sent by identifier, those with the same one in the order of the calls. An
    // error frame is what the drivers of all ports on the bus report at that time, to every socket of theirs.
    void transmit(int port, const CanFrame& frame, double at);
    // What the port has put on its bus so far, the last 262144 frames of it.
    std::vector<CanRecord> sent(int port) const;
    CanPortState state(int port) const;
    int ports() const;
    void goBusOff(int port);

    // ---- Doors: 0, a count or a negative errno ----------------------------------------------------------------------

    // False: the machine has CAN interfaces of its own, and what concerns CAN is its kernel's.
    bool served() const;
    // Whether a name is that of an interface of the instrument, there or not.
    bool ownsName(const std::string& name) const;
    int indexOf(const std::string& name);  // if_nametoindex: from 1
    size_t interfaces() const;             // those that are there and have "can" in their name

    // What `ip link` asks the kernel for. -ENODEV: no such interface.
    int setUp(const std::string& name, bool up);
    int setBitrate(const std::string& name, uint32_t bitrate);
    int setListenOnly(const std::string& name, bool on);
    int setQueueLength(const std::string& name, uint32_t length);
    int setRestart(const std::string& name, uint32_t milliseconds);

    // Raw sockets. Their numbers never return in one process.
    int open(int type, int protocol);
    void close(int socket);
    int bind(int socket, const void* address, size_t size);
    ssize_t read(int socket, void* frame, size_t size);         // -EAGAIN without one
    ssize_t write(int socket, const void* frame, size_t size);  // -EAGAIN while the socket has no room
    short ready(int socket);                                    // events of poll(2)
    int waitFault(int socket);                                  // whether a wait for it fails
    int flagsFault(int socket);                                 // whether F_SETFL fails
    // Time of the frame read last, s of the instrument. Of one that came before the socket had asked for the first time
    // nobody knows it: that is then the time of the question.
    int stamp(int socket, double& at);
    int setOption(int socket, int level, int name, const void* value, size_t size);
    int getOption(int socket, int level, int name, void* value, size_t& size);

private:
    std::unique_ptr<CanNetwork> network_;
};

}  // namespace kestrixsim
