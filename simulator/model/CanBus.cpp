#include "simulator/model/CanBus.h"

#include <linux/can.h>
#include <linux/can/error.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "simulator/model/CanNodes.h"
#include "simulator/model/CanRawSocket.h"

namespace kestrixsim {

namespace {

constexpr int64_t second = 1'000'000'000;
constexpr int64_t millisecond = 1'000'000;
constexpr int64_t never = CanNodes::never;
constexpr size_t recordsKept = 262'144;
constexpr uint32_t fastest = 1'000'000;  // 1/s, of the controllers
constexpr uint32_t slowest = 5'000;
constexpr int firstIndex = 3;          // behind the loopback and the network card
constexpr size_t smallestAddress = 8;  // of bind: family and interface
constexpr double byNow = std::numeric_limits<double>::quiet_NaN();

static_assert(sizeof(can_frame) == CAN_MTU);

// The numbers of sockets go on from one instrument to the next: a descriptor of an earlier one finds nothing.
constinit std::atomic<int> lastSocket{0};

int64_t nanoseconds(double seconds) {
    return static_cast<int64_t>(std::llround(seconds * 1e9));
}

double inSeconds(int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) * 1e-9;
}

bool isVirtual(const std::string& name) {
    return name.starts_with("vcan");
}

// "can0", "vcan12": what such an interface is called on any machine.
bool isCanName(const std::string& name) {
    size_t digits = name.size();
    while (digits > 0 && name[digits - 1] >= '0' && name[digits - 1] <= '9') {
        --digits;
    }
    const std::string kind = name.substr(0, digits);
    return digits < name.size() && (kind == "can" || kind == "vcan" || kind == "slcan");
}

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

can_frame rawOf(const CanFrame& frame) {
    can_frame raw{};
    raw.can_id = frame.id;
    raw.len = frame.length;
    std::memcpy(raw.data, frame.data.data(), frame.data.size());
    return raw;
}

CanFrame frameOf(const can_frame& raw) {
    CanFrame frame;
    const bool extended = (raw.can_id & CAN_EFF_FLAG) != 0;
    // No program sends error frames: its controller takes the rest for an identifier.
    frame.id = raw.can_id & (CAN_EFF_FLAG | CAN_RTR_FLAG | (extended ? CAN_EFF_MASK : CAN_SFF_MASK));
    frame.length = raw.len;
    std::copy_n(raw.data, frame.length, frame.data.begin());
    return frame;
}

CanFrame errorFrame(uint32_t classes) {
    CanFrame frame;
    frame.id = CanFrame::error | (classes & CAN_ERR_MASK);
    frame.length = CAN_ERR_DLC;
    return frame;
}

struct Pending {
    CanFrame frame;
    int bits;
    uint32_t priority;
    int64_t at;  // written
    int socket;
};

struct Port {
    CanInterfaceScenario plan;
    int bus = 0;
    bool up = false;
    uint32_t bitrate = 0;
    bool listenOnly = false;
    uint32_t txQueueLength = 10;
    uint32_t restartMs = 0;
    bool off = false;
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

    int64_t duration(int bits) const { return bits * second / plan.bitrate; }

    CanBusScenario plan;
    CanNodes nodes;
    std::vector<int> ports;
    int64_t idleAt = 0;
    int64_t simulated = 0;
    std::optional<Flight> flight;
};

}  // namespace

class CanBus::Implementation {
public:
    Implementation(const Clock& time, Faults& allFaults, const Scenario& scenario)
        : clock_(time), faults_(allFaults), stampsFromStart_(scenario.can.stampsFromStart) {
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

    // ---- Who is where
    // ------------------------------------------------------------------------------------------------

    Port& checked(int port) {
        if (port < 0 || port >= static_cast<int>(ports_.size())) {
            throw std::out_of_range("The instrument has no CAN port " + std::to_string(port));
        }
        return ports_[static_cast<size_t>(port)];
    }

    Port* named(const std::string& name) {
        const auto found = std::find_if(ports_.begin(), ports_.end(),
                                        [&](const Port& port) { return port.plan.present && port.plan.name == name; });
        return found != ports_.end() ? &*found : nullptr;
    }

    CanRawSocket* socket(int number) {
        const auto found = sockets_.find(number);
        return found != sockets_.end() ? &found->second : nullptr;
    }

    Port& at(int port) { return ports_[static_cast<size_t>(port)]; }
    Wire& wireOf(const Port& port) { return wires_[static_cast<size_t>(port.bus)]; }
    int numberOf(const Port& port) const { return static_cast<int>(&port - ports_.data()); }
    int64_t now() const { return nanoseconds(clock_.seconds()); }

    // ---- The wire
    // ----------------------------------------------------------------------------------------------------

    static bool hears(const Port& port, const Wire& wire) {
        return port.up && !port.off && (isVirtual(port.plan.name) || port.bitrate == wire.plan.bitrate);
    }

    bool acknowledged(const Port& sender, const Wire& wire) {
        return wire.plan.acknowledged || std::any_of(wire.ports.begin(), wire.ports.end(), [&](int number) {
                   const Port& port = at(number);
                   return &port != &sender && hears(port, wire) && !port.listenOnly;
               });
    }

    // Since when a port wants to send; never while it has nothing or cannot.
    int64_t wantsSince(const Port& port, const Wire& wire) {
        return !port.queue.empty() && hears(port, wire) && !port.listenOnly && acknowledged(port, wire)
                   ? std::max(port.queue.front().at, port.since)
                   : never;
    }

    // Lets everything happen that happens until then.
    void advance(Wire& wire, int64_t until) {
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

    void advance(Port& port, int64_t until) { advance(wireOf(port), until); }

    void advanceFor(const CanRawSocket& socket, int64_t until) {
        if (socket.port >= 0) {
            advance(at(socket.port), until);
        } else if (socket.port == CanRawSocket::everyPort) {
            for (Wire& wire : wires_) {
                advance(wire, until);
            }
        }
    }

    int64_t startOfNext(Wire& wire) {
        int64_t ready = wire.nodes.earliest();
        for (const int number : wire.ports) {
            ready = std::min(ready, wantsSince(at(number), wire));
        }
        return ready == never ? never : std::max(ready, wire.idleAt);
    }

    void takeOff(Wire& wire, int64_t start) {
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

    void land(Wire& wire) {
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

    // Whether a fault at one of the ports destroys the frame, which then is to be sent again.
    bool faultStrikes(Wire& wire, const Flight& flight) {
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

    void complete(Port& port, const Flight& flight) {
        const int owner = port.queue.front().socket;
        port.queue.pop_front();
        ++port.sentFrames;
        port.sent.push_back({flight.frame, inSeconds(flight.end)});
        if (port.sent.size() > recordsKept) {
            port.sent.pop_front();
        }
        // The other sockets of this port hear what it has sent.
        CanRawSocket* from = socket(owner);
        if (from != nullptr) {
            --from->sending;
        }
        if (from == nullptr || from->loopback) {
            spread(port, flight.frame, flight.end, owner);
        }
    }

    template <typename Each>
    void eachSocket(Port& port, Each&& each) {
        std::for_each(port.sockets.begin(), port.sockets.end(), each);
        std::for_each(everywhere_.begin(), everywhere_.end(), each);
    }

    void spread(Port& port, const CanFrame& frame, int64_t at, int owner) {
        const CanRawSocket* from = owner != 0 ? socket(owner) : nullptr;
        eachSocket(port, [&](CanRawSocket* each) {
            if ((each != from || each->receivesOwn) && each->wants(frame)) {
                give(port, *each, frame, at);
            }
        });
    }

    // An error, to those who asked for its class, or to all.
    void report(Port& port, const CanFrame& frame, int64_t at, bool all) {
        eachSocket(port, [&](CanRawSocket* each) {
            if (all || each->wants(frame)) {
                give(port, *each, frame, at);
            }
        });
    }

    void give(Port& port, CanRawSocket& to, const CanFrame& frame, int64_t at) {
        port.dropped += to.deliver({frame, at, stamping_ > 0}) ? 0 : 1;
    }

    // A bus that nobody has looked at for long, and whose frames nobody would have had room for, is not played frame
    // by frame up to its last second.
    void skip(Wire& wire, int64_t until) {
        constexpr int64_t longAgo = 10 * second;
        const int64_t target = until - second;
        if (target - wire.simulated < longAgo || faults_.present(FaultKind::CanErrorFrame) ||
            faults_.present(FaultKind::CanBusOff)) {
            return;
        }
        for (const int number : wire.ports) {
            Port& port = at(number);
            bool waits = !port.queue.empty() || port.restartAt != never;
            eachSocket(port,
                       [&](const CanRawSocket* each) { waits = waits || (hears(port, wire) && each->hasRoom()); });
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

    // ---- The controller
    // ----------------------------------------------------------------------------------------------

    // What waits will never be sent.
    void purge(Port& port, int64_t time) {
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

    void turnOff(Port& port, int64_t time) {
        if (!port.up || port.off) {
            return;
        }
        purge(port, time);
        port.off = true;
        port.restartAt = port.restartMs != 0 ? time + port.restartMs * millisecond : never;
        report(port, errorFrame(CAN_ERR_BUSOFF), time, false);
    }

    Port* firstRestart(Wire& wire, int64_t until) {
        Port* first = nullptr;
        for (const int number : wire.ports) {
            Port& port = at(number);
            if (port.restartAt <= until && (first == nullptr || port.restartAt < first->restartAt)) {
                first = &port;
            }
        }
        return first;
    }

    void restart(Port& port) {
        port.since = std::exchange(port.restartAt, never);
        port.off = false;
        report(port, errorFrame(CAN_ERR_RESTARTED), port.since, false);
    }

    int setUp(Port& port, bool up, int64_t time) {
        if (port.up == up) {
            return 0;
        }
        if (up) {
            if (!port.plan.starts || faults_.hit(FaultKind::CanUp, numberOf(port))) {
                return -ETIMEDOUT;
            }
            if (port.bitrate == 0 && !isVirtual(port.plan.name)) {
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
            if (isVirtual(port.plan.name)) {
                return -EOPNOTSUPP;
            }
            return port.up ? -EBUSY : set(port);
        });
    }

    // ---- Sockets
    // -----------------------------------------------------------------------------------------------------

    void unbind(CanRawSocket& socket) {
        if (socket.port >= 0) {
            std::erase(at(socket.port).sockets, &socket);
        }
        std::erase(everywhere_, &socket);
        socket.port = CanRawSocket::unbound;
    }

    int bind(CanRawSocket& socket, int index) {
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

    ssize_t write(int number, CanRawSocket& socket, const CanFrame& frame) {
        if (socket.port < 0) {
            return -ENXIO;
        }
        Port& port = at(socket.port);
        const int64_t time = now();
        advance(port, time);
        if (const int error = socket.takeError(); error != 0) {
            return -error;
        }
        if (!socket.maySend()) {
            return -EAGAIN;
        }
        if (!port.up) {
            return -ENETDOWN;
        }
        if (faults_.hit(FaultKind::CanShortWrite, socket.port)) {
            return sizeof(can_frame) / 2;
        }
        // One frame is in the controller, the others in the queue. What cannot go out is taken and thrown away.
        if (port.off || port.listenOnly) {
            ++port.sendDropped;
            return sizeof(can_frame);
        }
        if (port.queue.size() > port.txQueueLength) {
            return -ENOBUFS;
        }
        port.queue.push_back({frame, frame.bits(), frame.priority(), time, number});
        ++socket.sending;
        return sizeof(can_frame);
    }

    std::mutex mutex_;
    const Clock& clock_;
    Faults& faults_;
    const bool stampsFromStart_;
    std::vector<Port> ports_;
    std::deque<Wire> wires_;
    std::map<int, CanRawSocket> sockets_;
    std::vector<CanRawSocket*> everywhere_;
    int stamping_ = 0;  // sockets that want stamps
};

CanBus::CanBus(const Clock& clock, Faults& faults, const Scenario& scenario)
    : implementation_(std::make_unique<Implementation>(clock, faults, scenario)) {}

CanBus::~CanBus() = default;

void CanBus::transmit(int port, const CanFrame& frame, double at) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    Wire& wire = all.wireOf(all.checked(port));
    all.advance(wire, all.now());
    wire.nodes.offer(frame, std::max(nanoseconds(at), wire.simulated));
}

std::vector<CanRecord> CanBus::sent(int port) const {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    Port& asked = all.checked(port);
    all.advance(asked, all.now());
    return {asked.sent.begin(), asked.sent.end()};
}

CanPortState CanBus::state(int port) const {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    Port& asked = all.checked(port);
    all.advance(asked, all.now());
    return {asked.plan.name,     asked.plan.present, asked.up,          asked.bitrate,  asked.listenOnly,
            asked.txQueueLength, asked.restartMs,    asked.off,         asked.received, asked.sentFrames,
            asked.dropped,       asked.sendDropped,  asked.queue.size()};
}

int CanBus::ports() const {
    return static_cast<int>(implementation_->ports_.size());
}

void CanBus::goBusOff(int port) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    Port& asked = all.checked(port);
    const int64_t time = all.now();
    all.advance(asked, time);
    all.turnOff(asked, time);
}

bool CanBus::ownsName(const std::string& name) const {
    const auto& ports = implementation_->ports_;
    return isCanName(name) ||
           std::any_of(ports.begin(), ports.end(), [&](const Port& port) { return port.plan.name == name; });
}

int CanBus::indexOf(const std::string& name) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    const Port* port = all.named(name);
    if (port == nullptr || all.faults_.hit(FaultKind::CanIndex, all.numberOf(*port))) {
        return -ENODEV;
    }
    return firstIndex + all.numberOf(*port);
}

size_t CanBus::interfaces() const {
    const auto& ports = implementation_->ports_;
    return static_cast<size_t>(std::count_if(ports.begin(), ports.end(), [](const Port& port) {
        return port.plan.present && port.plan.name.find("can") != std::string::npos;
    }));
}

int CanBus::setUp(const std::string& name, bool up) {
    return implementation_->change(name,
                                   [&](Port& port, int64_t time) { return implementation_->setUp(port, up, time); });
}

int CanBus::setBitrate(const std::string& name, uint32_t bitrate) {
    return implementation_->changeDriver(name, [&](Port& port) {
        if (bitrate < slowest || bitrate > fastest) {
            return bitrate == 0 ? -EINVAL : -EDOM;
        }
        port.bitrate = bitrate;
        return 0;
    });
}

int CanBus::setListenOnly(const std::string& name, bool on) {
    return implementation_->changeDriver(name, [&](Port& port) {
        port.listenOnly = on;
        return 0;
    });
}

int CanBus::setQueueLength(const std::string& name, uint32_t length) {
    return implementation_->change(name, [&](Port& port, int64_t) {
        port.txQueueLength = length;
        return 0;
    });
}

int CanBus::setRestart(const std::string& name, uint32_t milliseconds) {
    return implementation_->changeDriver(name, [&](Port& port) {
        port.restartMs = milliseconds;
        return 0;
    });
}

int CanBus::open(int type, int protocol) {
    if (protocol != CAN_RAW) {
        return protocol < 0 || protocol >= CAN_NPROTO ? -EINVAL : -EPROTONOSUPPORT;
    }
    if (type != SOCK_RAW) {
        return -EPROTOTYPE;
    }
    Implementation& all = *implementation_;
    if (const auto fault = all.faults_.hit(FaultKind::CanSocket)) {
        return fault->code != 0 ? -fault->code : -EAFNOSUPPORT;
    }
    const std::lock_guard lock(all.mutex_);
    const int number = ++lastSocket;
    CanRawSocket& made = all.sockets_[number];
    made.wantsStamps = all.stampsFromStart_;
    all.stamping_ += made.wantsStamps ? 1 : 0;
    return number;
}

void CanBus::close(int socket) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return;
    }
    // What was written still goes out. It belongs to nobody then.
    all.advanceFor(*found, all.now());
    all.unbind(*found);
    all.stamping_ -= found->wantsStamps ? 1 : 0;
    all.sockets_.erase(socket);
}

int CanBus::bind(int socket, const void* address, size_t size) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return -EBADF;
    }
    if (address == nullptr) {
        return -EFAULT;
    }
    sockaddr_can wanted{};
    if (size < smallestAddress) {
        return -EINVAL;
    }
    std::memcpy(&wanted, address, std::min(size, sizeof wanted));
    return wanted.can_family != AF_CAN ? -EINVAL : all.bind(*found, wanted.can_ifindex);
}

ssize_t CanBus::read(int socket, void* frame, size_t size) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return -EBADF;
    }
    if (const auto fault = all.faults_.hit(FaultKind::CanRead, found->port)) {
        return fault->code != 0 ? -fault->code : -EIO;
    }
    all.advanceFor(*found, all.now());
    if (const int error = found->takeError(); error != 0) {
        return -error;
    }
    if (found->queue.empty()) {
        return -EAGAIN;
    }
    const can_frame raw = rawOf(found->take().frame);
    const bool cut = all.faults_.hit(FaultKind::CanShortRead, found->port).has_value();
    const size_t count = std::min(size, cut ? sizeof raw / 2 : sizeof raw);
    std::memcpy(frame, &raw, count);
    return static_cast<ssize_t>(count);
}

ssize_t CanBus::write(int socket, const void* frame, size_t size) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return -EBADF;
    }
    if (const auto fault = all.faults_.hit(FaultKind::CanWrite, found->port)) {
        return fault->code != 0 ? -fault->code : -EIO;
    }
    can_frame raw{};
    if (size != sizeof raw) {
        return -EINVAL;
    }
    std::memcpy(&raw, frame, sizeof raw);
    return raw.len > CAN_MAX_DLEN ? -EINVAL : all.write(socket, *found, frameOf(raw));
}

short CanBus::ready(int socket) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return POLLNVAL;
    }
    all.advanceFor(*found, all.now());
    int events = found->error != 0 ? POLLERR : 0;
    events |= !found->queue.empty() ? POLLIN | POLLRDNORM : 0;
    events |= found->writable() ? POLLOUT | POLLWRNORM : 0;
    return static_cast<short>(events);
}

int CanBus::waitFault(int socket) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    const CanRawSocket* found = all.socket(socket);
    const auto fault = found != nullptr ? all.faults_.hit(FaultKind::CanWait, found->port) : std::nullopt;
    return !fault ? 0 : fault->code != 0 ? -fault->code : -ENOMEM;
}

int CanBus::flagsFault(int socket) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    const CanRawSocket* found = all.socket(socket);
    const auto fault = found != nullptr ? all.faults_.hit(FaultKind::CanFlags, found->port) : std::nullopt;
    return !fault ? 0 : fault->code != 0 ? -fault->code : -EPERM;
}

int CanBus::stamp(int socket, double& at) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return -EBADF;
    }
    if (all.faults_.hit(FaultKind::CanStamp, found->port)) {
        return -ENOENT;
    }
    // Who asks has its frames stamped from then on.
    all.advanceFor(*found, all.now());
    all.stamping_ += found->wantsStamps ? 0 : 1;
    found->wantsStamps = true;
    if (found->stamp == CanRawSocket::Stamp::Never) {
        return -ENOENT;
    }
    at = found->stamp == CanRawSocket::Stamp::Taken ? inSeconds(found->stampAt) : byNow;
    return 0;
}

int CanBus::setOption(int socket, int level, int name, const void* value, size_t size) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return -EBADF;
    }
    if (const auto fault = all.faults_.hit(FaultKind::CanOption, found->port)) {
        return fault->code != 0 ? -fault->code : -ENOBUFS;
    }
    // What has come by now came under the old one.
    all.advanceFor(*found, all.now());
    const bool before = found->wantsStamps;
    const int result = found->setOption(level, name, value, size);
    all.stamping_ += found->wantsStamps && !before ? 1 : 0;
    return result;
}

int CanBus::getOption(int socket, int level, int name, void* value, size_t& size) {
    Implementation& all = *implementation_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return -EBADF;
    }
    all.advanceFor(*found, all.now());
    return found->getOption(level, name, value, size);
}

}  // namespace kestrixsim
