#include "simulator/model/CanBus.h"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include "simulator/model/CanNetwork.h"

namespace kestrixsim {

namespace {

using Port = CanNetwork::Port;
using Wire = CanNetwork::Wire;

constexpr uint32_t fastest = 1'000'000;  // 1/s, of the controllers
constexpr uint32_t slowest = 5'000;
constexpr size_t smallestAddress = 8;  // of bind: family and interface

static_assert(sizeof(can_frame) == CAN_MTU);

// The numbers of sockets go on from one instrument to the next: a descriptor of an earlier one finds nothing.
constinit std::atomic<int> lastSocket{0};

// "can0", "vcan12": what such an interface is called on any machine.
bool isCanName(const std::string& name) {
    size_t digits = name.size();
    while (digits > 0 && name[digits - 1] >= '0' && name[digits - 1] <= '9') {
        --digits;
    }
    const std::string kind = name.substr(0, digits);
    return digits < name.size() && (kind == "can" || kind == "vcan" || kind == "slcan");
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
    frame.id = raw.can_id;
    frame.length = raw.len;
    std::memcpy(frame.data.data(), raw.data, frame.data.size());
    return frame;
}

}  // namespace

CanBus::CanBus(const Clock& clock, Faults& faults, const Scenario& scenario)
    : network_(std::make_unique<CanNetwork>(clock, faults, scenario)) {}

CanBus::~CanBus() = default;

void CanBus::transmit(int port, const CanFrame& frame, double at) {
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    Wire& wire = all.wireOf(all.checked(port));
    all.advance(wire, all.now());
    wire.nodes.offer(frame, std::max(CanNetwork::nanoseconds(at), wire.simulated));
}

std::vector<CanRecord> CanBus::sent(int port) const {
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    Port& asked = all.checked(port);
    all.advance(asked, all.now());
    return {asked.sent.begin(), asked.sent.end()};
}

CanPortState CanBus::state(int port) const {
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    Port& asked = all.checked(port);
    all.advance(asked, all.now());
    return {asked.plan.name,     asked.plan.present, asked.up,          asked.bitrate,  asked.listenOnly,
            asked.txQueueLength, asked.restartMs,    asked.off,         asked.received, asked.sentFrames,
            asked.dropped,       asked.sendDropped,  asked.queue.size()};
}

int CanBus::ports() const {
    return static_cast<int>(network_->ports_.size());
}

void CanBus::goBusOff(int port) {
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    Port& asked = all.checked(port);
    const int64_t time = all.now();
    all.advance(asked, time);
    all.turnOff(asked, time);
}

bool CanBus::served() const {
    return !network_->kernel_;
}

bool CanBus::ownsName(const std::string& name) const {
    const auto& ports = network_->ports_;
    return served() && (isCanName(name) || std::any_of(ports.begin(), ports.end(),
                                                       [&](const Port& port) { return port.plan.name == name; }));
}

int CanBus::indexOf(const std::string& name) {
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    const Port* port = all.named(name);
    if (port == nullptr || all.faults_.hit(FaultKind::CanIndex, all.numberOf(*port))) {
        return -ENODEV;
    }
    return CanNetwork::firstIndex + all.numberOf(*port);
}

size_t CanBus::interfaces() const {
    const auto& ports = network_->ports_;
    return static_cast<size_t>(std::count_if(ports.begin(), ports.end(), [](const Port& port) {
        return port.plan.present && port.plan.name.find("can") != std::string::npos;
    }));
}

int CanBus::setUp(const std::string& name, bool up) {
    return network_->change(name, [&](Port& port, int64_t time) { return network_->setUp(port, up, time); });
}

int CanBus::setBitrate(const std::string& name, uint32_t bitrate) {
    if (bitrate == 0) {
        // The tool takes it for none given, and asks for nothing.
        return network_->change(name, [](const Port& port, int64_t) { return port.isVirtual() ? -EOPNOTSUPP : 0; });
    }
    return network_->changeDriver(name, [&](Port& port) {
        if (bitrate < slowest || bitrate > fastest) {
            return -EDOM;
        }
        port.bitrate = bitrate;
        return 0;
    });
}

int CanBus::setListenOnly(const std::string& name, bool on) {
    return network_->changeDriver(name, [&](Port& port) {
        port.listenOnly = on;
        return 0;
    });
}

int CanBus::setQueueLength(const std::string& name, uint32_t length) {
    return network_->change(name, [&](Port& port, int64_t) {
        port.txQueueLength = length;
        return 0;
    });
}

int CanBus::setRestart(const std::string& name, uint32_t milliseconds) {
    return network_->changeDriver(name, [&](Port& port) {
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
    CanNetwork& all = *network_;
    if (const auto fault = all.faults_.hit(FaultKind::CanSocket)) {
        return fault->code != 0 ? -fault->code : -EAFNOSUPPORT;
    }
    const std::lock_guard lock(all.mutex_);
    const int number = ++lastSocket;
    all.sockets_[number];
    return number;
}

void CanBus::close(int socket) {
    CanNetwork& all = *network_;
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
    CanNetwork& all = *network_;
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
    CanNetwork& all = *network_;
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
    if (size == 0) {
        return 0;  // and the frame stays
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
    CanNetwork& all = *network_;
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
    if (found->port < 0) {
        return -ENXIO;
    }
    std::memcpy(&raw, frame, sizeof raw);
    return all.write(socket, *found, frameOf(raw));
}

short CanBus::ready(int socket) {
    CanNetwork& all = *network_;
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
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    const CanRawSocket* found = all.socket(socket);
    const auto fault = found != nullptr ? all.faults_.hit(FaultKind::CanWait, found->port) : std::nullopt;
    return !fault ? 0 : fault->code != 0 ? -fault->code : -ENOMEM;
}

int CanBus::flagsFault(int socket) {
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    const CanRawSocket* found = all.socket(socket);
    const auto fault = found != nullptr ? all.faults_.hit(FaultKind::CanFlags, found->port) : std::nullopt;
    return !fault ? 0 : fault->code != 0 ? -fault->code : -EPERM;
}

int CanBus::stamp(int socket, double& at) {
    CanNetwork& all = *network_;
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
    if (found->stamp == CanRawSocket::Stamp::Missing) {
        found->stamp = CanRawSocket::Stamp::Taken;
        found->stampAt = all.now();
    }
    at = CanNetwork::inSeconds(found->stampAt);
    return 0;
}

int CanBus::setOption(int socket, int level, int name, const void* value, size_t size) {
    CanNetwork& all = *network_;
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
    CanNetwork& all = *network_;
    const std::lock_guard lock(all.mutex_);
    CanRawSocket* found = all.socket(socket);
    if (found == nullptr) {
        return -EBADF;
    }
    all.advanceFor(*found, all.now());
    return found->getOption(level, name, value, size);
}

}  // namespace kestrixsim
