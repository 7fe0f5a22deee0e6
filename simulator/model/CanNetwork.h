#pragma once

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "simulator/model/CanBus.h"
#include "simulator/model/CanNodes.h"
#include "simulator/model/CanRawSocket.h"

namespace kestrixsim {

// What stands behind CanBus, which is the only one that uses it: ports, the wires that they hang on, and sockets. Times
// are nanoseconds of the instrument. Callers hold the lock, but for change() and changeDriver().
class CanNetwork {
public:
    static constexpr int64_t never = CanNodes::never;

    struct Pending {
        CanFrame frame;
        int bits;
        uint32_t priority;
        int64_t at;  // written
        int socket;
    };

    struct Port {
        bool isVirtual() const { return plan.isVirtual(); }

        CanInterfaceScenario plan;
        int bus = 0;  // its wire
        bool up = false;
        uint32_t bitrate = 0;
        bool listenOnly = false;
        uint32_t txQueueLength = 10;
        uint32_t restartMs = 0;
        bool off = false;  // the bus
        int64_t restartAt = never;
        int64_t since = 0;  // on the bus, if it is
        std::deque<Pending> queue;
        std::vector<CanRawSocket*> sockets;
        uint64_t received = 0;
        uint64_t sentFrames = 0;
        uint64_t dropped = 0;
        uint64_t sendDropped = 0;
        std::deque<CanRecord> sent;
    };

    struct Flight {
        std::optional<CanNodes::Offer> offer;
        int port = -1;  // or the port that sends the front of its queue
        CanFrame frame{};
        int64_t start = 0;
        int64_t end = 0;
    };

    struct Wire {
        Wire(const CanBusScenario& scenario) : plan(scenario), nodes(scenario) {}

        int64_t duration(int bits) const { return bits * int64_t{1'000'000'000} / plan.bitrate; }

        CanBusScenario plan;
        CanNodes nodes;
        std::vector<int> ports;
        int64_t idleAt = 0;
        int64_t simulated = 0;
        std::optional<Flight> flight;
    };

    CanNetwork(const Clock& time, Faults& allFaults, const Scenario& scenario);

private:
    friend class CanBus;

    static constexpr int firstIndex = 3;  // behind the loopback and the network card

    static int64_t nanoseconds(double seconds) { return static_cast<int64_t>(std::llround(seconds * 1e9)); }
    static double inSeconds(int64_t nanoseconds) { return static_cast<double>(nanoseconds) * 1e-9; }

    // ---- Who is where

    Port& checked(int port);
    Port* named(const std::string& name);
    CanRawSocket* socket(int number);
    Port& at(int port) { return ports_[static_cast<size_t>(port)]; }
    Wire& wireOf(const Port& port) { return wires_[static_cast<size_t>(port.bus)]; }
    int numberOf(const Port& port) const { return static_cast<int>(&port - ports_.data()); }
    int64_t now() const { return nanoseconds(clock_.seconds()); }

    // ---- The wire

    static bool hears(const Port& port, const Wire& wire);
    bool acknowledged(const Port& sender, const Wire& wire);

    // Since when a port wants to send; never while it has nothing or cannot.
    int64_t wantsSince(const Port& port, const Wire& wire);

    // Lets everything happen that happens until then.
    void advance(Wire& wire, int64_t until);
    void advance(Port& port, int64_t until) { advance(wireOf(port), until); }

    void advanceFor(const CanRawSocket& socket, int64_t until);
    int64_t startOfNext(Wire& wire);
    void takeOff(Wire& wire, int64_t start);
    void land(Wire& wire);

    // Whether a fault at one of the ports destroys the frame, which then is to be sent again.
    bool faultStrikes(Wire& wire, const Flight& flight);
    void complete(Port& port, const Flight& flight);

    void haveSent(Port& port, const CanFrame& frame, int64_t at, int owner);

    template <typename Each>
    void eachSocket(Port& port, Each&& each) {
        std::for_each(port.sockets.begin(), port.sockets.end(), each);
        std::for_each(everywhere_.begin(), everywhere_.end(), each);
    }

    void spread(Port& port, const CanFrame& frame, int64_t at, int owner);

    // An error, to those who asked for its class, or to all.
    void report(Port& port, const CanFrame& frame, int64_t at, bool all);
    void give(Port& port, CanRawSocket& to, const CanFrame& frame, int64_t at);

    // A bus that nobody has looked at for long, and whose frames nobody would have had room for, is not played frame
    // by frame up to its last second.
    void skip(Wire& wire, int64_t until);

    // ---- The controller

    // What waits will never be sent.
    void purge(Port& port, int64_t time);
    void turnOff(Port& port, int64_t time);
    Port* firstRestart(Wire& wire, int64_t until);
    void restart(Port& port);
    int setUp(Port& port, bool up, int64_t time);

    // Runs a change of a port by name, once everything before it has happened.
    template <typename Change>
    int change(const std::string& name, Change&& change) {
        const std::lock_guard lock(mutex_);
        Port* port = named(name);
        if (port == nullptr) {
            return -ENODEV;
        }
        const int64_t time = now();
        advance(*port, time);
        return change(*port, time);
    }

    // The same for what only the driver of a controller knows, and only while it is down.
    template <typename Change>
    int changeDriver(const std::string& name, Change&& set) {
        return change(name, [&](Port& port, int64_t) {
            if (port.isVirtual()) {
                return -EOPNOTSUPP;
            }
            return port.up ? -EBUSY : set(port);
        });
    }

    // ---- Sockets

    void unbind(CanRawSocket& socket);
    int bind(CanRawSocket& socket, int index);
    ssize_t write(int number, CanRawSocket& socket, const CanFrame& frame);

    std::mutex mutex_;
    const Clock& clock_;
    Faults& faults_;
    const bool kernel_;  // nothing of all this is asked
    std::vector<Port> ports_;
    std::deque<Wire> wires_;
    std::map<int, CanRawSocket> sockets_;
    std::vector<CanRawSocket*> everywhere_;
    int stamping_;  // who wants stamps: the sockets that do, and what else there is on the machine
};

}  // namespace kestrixsim
