#include "simulator/model/CanNetwork.h"

#include <linux/can.h>
#include <linux/can/error.h>

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <utility>

namespace kestrixsim {

namespace {

constexpr int64_t second = 1'000'000'000;
constexpr int64_t millisecond = 1'000'000;
constexpr size_t recordsKept = 262'144;

std::vector<CanInterfaceScenario> interfacesOf(const Scenario& scenario) {
    if (scenario.can.interfaces) {
        return *scenario.can.interfaces;
    }
    std::vector<CanInterfaceScenario> result;
    for (int i = 0; i < std::popcount(scenario.canPorts); ++i) {
        result.push_back({"can" + std::to_string(i), i});
    }
    return result;
}

CanFrame errorFrame(uint32_t classes) {
    CanFrame frame;
    frame.id = CanFrame::error | (classes & CAN_ERR_MASK);
    frame.length = CAN_ERR_DLC;
    return frame;
}

// What a controller makes of what a program writes: it has no flag for error frames and takes the rest for an
// identifier.
CanFrame asController(const CanFrame& written) {
    CanFrame frame;
    frame.id = written.id & (CAN_EFF_FLAG | CAN_RTR_FLAG | (written.isExtended() ? CAN_EFF_MASK : CAN_SFF_MASK));
    frame.length = written.length;
    std::copy_n(written.data.begin(), frame.isRemote() ? 0 : frame.length, frame.data.begin());
    return frame;
}

}  // namespace

CanNetwork::CanNetwork(const Clock& time, Faults& allFaults, const Scenario& scenario)
    : clock_(time), faults_(allFaults), kernel_(scenario.can.kernel), stamping_(scenario.can.stampsFromStart ? 1 : 0) {
    for (const CanInterfaceScenario& plan : interfacesOf(scenario)) {
        Port port;
        port.plan = plan;
        ports_.push_back(std::move(port));
    }
    std::map<int, size_t> places;
    for (size_t i = 0; i < ports_.size(); ++i) {
        Port& port = ports_[i];
        const auto [found, fresh] = places.try_emplace(port.plan.bus, wires_.size());
        if (fresh) {
            const auto& buses = scenario.can.buses;
            const auto place = static_cast<size_t>(port.plan.bus);
            wires_.emplace_back(place < buses.size() ? buses[place] : CanBusScenario{});
        }
        port.bus = static_cast<int>(found->second);
        wires_[found->second].ports.push_back(static_cast<int>(i));
    }
}

CanNetwork::Port& CanNetwork::checked(int port) {
    if (port < 0 || port >= static_cast<int>(ports_.size())) {
        throw std::out_of_range("The instrument has no CAN port " + std::to_string(port));
    }
    return ports_[static_cast<size_t>(port)];
}

CanNetwork::Port* CanNetwork::named(const std::string& name) {
    const auto found = std::find_if(ports_.begin(), ports_.end(),
                                    [&](const Port& port) { return port.plan.present && port.plan.name == name; });
    return found != ports_.end() ? &*found : nullptr;
}

CanRawSocket* CanNetwork::socket(int number) {
    const auto found = sockets_.find(number);
    return found != sockets_.end() ? &found->second : nullptr;
}

bool CanNetwork::hears(const Port& port, const Wire& wire) {
    return port.up && !port.off && (port.isVirtual() || port.bitrate == wire.plan.bitrate);
}

bool CanNetwork::acknowledged(const Port& sender, const Wire& wire) {
    return wire.plan.acknowledged || std::any_of(wire.ports.begin(), wire.ports.end(), [&](int number) {
               const Port& port = at(number);
               return &port != &sender && hears(port, wire) && !port.listenOnly;
           });
}

int64_t CanNetwork::wantsSince(const Port& port, const Wire& wire) {
    return !port.queue.empty() && hears(port, wire) && !port.listenOnly && acknowledged(port, wire)
               ? std::max(port.queue.front().at, port.since)
               : never;
}

void CanNetwork::advance(Wire& wire, int64_t until) {
    constexpr int often = 4096;
    for (int round = 0;; ++round) {
        if (round % often == 0) {
            skip(wire, until);
        }
        const int64_t next = wire.flight ? wire.flight->end : startOfNext(wire);
        if (Port* port = firstRestart(wire, std::min(next, until))) {
            restart(*port);
        } else if (next > until) {
            break;
        } else if (wire.flight) {
            land(wire);
        } else {
            takeOff(wire, next);
        }
    }
    wire.simulated = std::max(wire.simulated, until);
}

void CanNetwork::advanceFor(const CanRawSocket& socket, int64_t until) {
    if (socket.port >= 0) {
        advance(at(socket.port), until);
    } else if (socket.port == CanRawSocket::everyPort) {
        for (Wire& wire : wires_) {
            advance(wire, until);
        }
    }
}

int64_t CanNetwork::startOfNext(Wire& wire) {
    int64_t ready = wire.nodes.earliest();
    for (const int number : wire.ports) {
        ready = std::min(ready, wantsSince(at(number), wire));
    }
    return ready == never ? never : std::max(ready, wire.idleAt);
}

void CanNetwork::takeOff(Wire& wire, int64_t start) {
    Flight flight;
    flight.start = start;
    flight.offer = wire.nodes.first(start);
    int bits = flight.offer ? flight.offer->bits : 0;
    uint32_t priority = flight.offer ? flight.offer->priority : 0;
    if (flight.offer) {
        flight.frame = flight.offer->frame;
    }
    for (const int number : wire.ports) {
        const Port& port = at(number);
        if (wantsSince(port, wire) > start) {
            continue;
        }
        // Of two that send the same identifier the first in the order of ports goes first.
        const Pending& front = port.queue.front();
        if (bits == 0 || front.priority < priority) {
            flight.offer.reset();
            flight.port = number;
            flight.frame = front.frame;
            bits = front.bits;
            priority = front.priority;
        }
    }
    flight.end = start + wire.duration(bits);
    wire.idleAt = start + wire.duration(bits + CanFrame::gapBits);
    wire.flight = flight;
}

void CanNetwork::land(Wire& wire) {
    const Flight flight = *wire.flight;
    wire.flight.reset();
    if (faultStrikes(wire, flight)) {
        return;
    }
    if (flight.offer) {
        wire.nodes.sent(*flight.offer);
    }
    for (const int number : wire.ports) {
        Port& port = at(number);
        if (flight.frame.isError()) {
            if (port.up) {
                report(port, flight.frame, flight.end, true);
            }
        } else if (number == flight.port) {
            complete(port, flight);
        } else if (hears(port, wire) && port.since <= flight.start) {
            ++port.received;
            spread(port, flight.frame, flight.end, 0);
        }
    }
}

bool CanNetwork::faultStrikes(Wire& wire, const Flight& flight) {
    bool destroyed = false;
    for (const int number : wire.ports) {
        Port& port = at(number);
        if (flight.frame.isError() || !hears(port, wire) || port.since > flight.start) {
            continue;
        }
        if (const auto fault = faults_.hitAt(inSeconds(flight.end), FaultKind::CanErrorFrame, number)) {
            const auto classes = static_cast<uint32_t>(fault->code);
            report(port, errorFrame(classes != 0 ? classes : CAN_ERR_PROT | CAN_ERR_BUSERROR), flight.end, true);
            destroyed = true;
        }
        if (faults_.hitAt(inSeconds(flight.end), FaultKind::CanBusOff, number)) {
            turnOff(port, flight.end);
            destroyed = destroyed || number == flight.port;
        }
    }
    if (destroyed) {
        wire.idleAt = flight.end + wire.duration(CanFrame::errorBits + CanFrame::gapBits);
    }
    return destroyed;
}

void CanNetwork::complete(Port& port, const Flight& flight) {
    const int owner = port.queue.front().socket;
    port.queue.pop_front();
    CanRawSocket* from = socket(owner);
    if (from != nullptr) {
        --from->sending;
    }
    haveSent(port, flight.frame, flight.end, owner);
}

void CanNetwork::haveSent(Port& port, const CanFrame& frame, int64_t at, int owner) {
    ++port.sentFrames;
    port.sent.push_back({frame, inSeconds(at)});
    if (port.sent.size() > recordsKept) {
        port.sent.pop_front();
    }
    // The other sockets of this port hear what it has sent.
    const CanRawSocket* from = socket(owner);
    if (from == nullptr || from->loopback) {
        spread(port, frame, at, owner);
    }
}

void CanNetwork::spread(Port& port, const CanFrame& frame, int64_t at, int owner) {
    const CanRawSocket* from = owner != 0 ? socket(owner) : nullptr;
    eachSocket(port, [&](CanRawSocket* each) {
        if ((each != from || each->receivesOwn) && each->wants(frame)) {
            give(port, *each, frame, at);
        }
    });
}

void CanNetwork::report(Port& port, const CanFrame& frame, int64_t at, bool all) {
    eachSocket(port, [&](CanRawSocket* each) {
        if (all || each->wants(frame)) {
            give(port, *each, frame, at);
        }
    });
}

void CanNetwork::give(Port& port, CanRawSocket& to, const CanFrame& frame, int64_t at) {
    port.dropped += to.deliver({frame, at, stamping_ > 0}) ? 0 : 1;
}

void CanNetwork::skip(Wire& wire, int64_t until) {
    constexpr int64_t longAgo = 10 * second;
    const int64_t target = until - second;
    if (target - wire.simulated < longAgo || faults_.present(FaultKind::CanErrorFrame) ||
        faults_.present(FaultKind::CanBusOff)) {
        return;
    }
    for (const int number : wire.ports) {
        Port& port = at(number);
        bool waits = !port.queue.empty() || port.restartAt != never;
        eachSocket(port, [&](const CanRawSocket* each) { waits = waits || (hears(port, wire) && each->hasRoom()); });
        if (waits) {
            return;
        }
    }
    const int64_t from = std::max(wire.simulated, wire.idleAt);
    const bool done = wire.nodes.skip(from, target, wire.plan.bitrate, [&](const CanFrame& frame, uint64_t count) {
        for (const int number : wire.ports) {
            Port& port = at(number);
            if (!hears(port, wire) || frame.isError()) {
                continue;
            }
            port.received += count;
            eachSocket(port, [&](CanRawSocket* each) {
                if (each->wants(frame)) {
                    each->drops += static_cast<uint32_t>(count);
                    port.dropped += count;
                }
            });
        }
    });
    if (done) {
        wire.flight.reset();
        wire.idleAt = wire.simulated = target;
    }
}

void CanNetwork::purge(Port& port, int64_t time) {
    Wire& wire = wireOf(port);
    if (wire.flight && wire.flight->port == numberOf(port)) {
        wire.flight.reset();
        wire.idleAt = time + wire.duration(CanFrame::errorBits + CanFrame::gapBits);
    }
    for (const Pending& each : port.queue) {
        if (CanRawSocket* owner = socket(each.socket)) {
            --owner->sending;
        }
    }
    port.sendDropped += port.queue.size();
    port.queue.clear();
}

void CanNetwork::turnOff(Port& port, int64_t time) {
    if (!port.up || port.off) {
        return;
    }
    purge(port, time);
    port.off = true;
    port.restartAt = port.restartMs != 0 ? time + port.restartMs * millisecond : never;
    report(port, errorFrame(CAN_ERR_BUSOFF), time, false);
}

CanNetwork::Port* CanNetwork::firstRestart(Wire& wire, int64_t until) {
    Port* first = nullptr;
    for (const int number : wire.ports) {
        Port& port = at(number);
        if (port.restartAt <= until && (first == nullptr || port.restartAt < first->restartAt)) {
            first = &port;
        }
    }
    return first;
}

void CanNetwork::restart(Port& port) {
    port.since = std::exchange(port.restartAt, never);
    port.off = false;
    report(port, errorFrame(CAN_ERR_RESTARTED), port.since, false);
}

int CanNetwork::setUp(Port& port, bool up, int64_t time) {
    if (port.up == up) {
        return 0;
    }
    if (up) {
        if (!port.plan.starts || faults_.hit(FaultKind::CanUp, numberOf(port))) {
            return -ETIMEDOUT;
        }
        if (port.bitrate == 0 && !port.isVirtual()) {
            return -EINVAL;
        }
        port.since = time;
    } else {
        purge(port, time);
        for (CanRawSocket* each : port.sockets) {
            each->error = ENETDOWN;
        }
    }
    port.up = up;
    port.off = false;
    port.restartAt = never;
    return 0;
}

void CanNetwork::unbind(CanRawSocket& socket) {
    if (socket.port >= 0) {
        std::erase(at(socket.port).sockets, &socket);
    }
    std::erase(everywhere_, &socket);
    socket.port = CanRawSocket::unbound;
}

int CanNetwork::bind(CanRawSocket& socket, int index) {
    const int port = index == 0 ? CanRawSocket::everyPort : index - firstIndex;
    if (index != 0 && (port < 0 || port >= static_cast<int>(ports_.size()) || !at(port).plan.present)) {
        return -ENODEV;
    }
    if (const auto fault = faults_.hit(FaultKind::CanBind, index == 0 ? -1 : port)) {
        return fault->code != 0 ? -fault->code : -ENODEV;
    }
    if (port == socket.port) {
        return 0;
    }
    const int64_t time = now();
    advanceFor(socket, time);
    unbind(socket);
    socket.port = port;
    advanceFor(socket, time);
    if (port >= 0) {
        at(port).sockets.push_back(&socket);
        socket.error = at(port).up ? socket.error : ENETDOWN;
    } else {
        everywhere_.push_back(&socket);
    }
    return 0;
}

ssize_t CanNetwork::write(int number, CanRawSocket& socket, const CanFrame& frame) {
    Port& port = at(socket.port);
    const int64_t time = now();
    advance(port, time);
    if (const int error = socket.takeError(); error != 0) {
        return -error;
    }
    if (!socket.maySend()) {
        return -EAGAIN;
    }
    if (frame.length > CAN_MAX_DLEN) {
        return -EINVAL;
    }
    if (!port.up) {
        return -ENETDOWN;
    }
    if (faults_.hit(FaultKind::CanShortWrite, socket.port)) {
        return sizeof(can_frame) / 2;
    }
    if (port.isVirtual()) {
        // Nothing on the way changes the frame, or takes time.
        haveSent(port, frame, time, number);
        return sizeof(can_frame);
    }
    // One frame is in the controller, the others in the queue. What cannot go out is taken and thrown away.
    if (port.off || port.listenOnly) {
        ++port.sendDropped;
        return sizeof(can_frame);
    }
    if (port.queue.size() > port.txQueueLength) {
        return -ENOBUFS;
    }
    const CanFrame sent = asController(frame);
    port.queue.push_back({sent, sent.bits(), sent.priority(), time, number});
    ++socket.sending;
    return sizeof(can_frame);
}

}  // namespace kestrixsim
