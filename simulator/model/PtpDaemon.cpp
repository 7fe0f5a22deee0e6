#include "simulator/model/PtpDaemon.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "simulator/model/Hash.h"

namespace kestrixsim {

namespace {

using Bytes = std::vector<uint8_t>;

// IEEE 1588-2008, tables 8, 19, 34, 38, 40 and 71.
constexpr int stateFaulty = 2;
constexpr int stateListening = 4;
constexpr int statePreMaster = 5;
constexpr int stateMaster = 6;
constexpr int stateUncalibrated = 8;
constexpr int stateSlave = 9;
constexpr uint8_t typeManagement = 0x0D;
constexpr uint8_t actionGet = 0;
constexpr uint8_t actionResponse = 2;
constexpr uint16_t tlvManagement = 1;
constexpr uint16_t tlvErrorStatus = 2;
constexpr uint16_t errorNoSuchId = 2;
constexpr uint16_t errorGeneral = 0xFFFE;
constexpr uint16_t idPortDataSet = 0x2004;
constexpr uint16_t idTimeStatus = 0xC000;

constexpr size_t tlvAt = 48;
constexpr size_t smallestRequest = 54;

// How long a port takes from one state to the next, in seconds.
constexpr double listening = 1.0;
constexpr double calibrating = 2.0;
constexpr double qualifying = 1.0;

unsigned word(const uint8_t* bytes) {
    return static_cast<unsigned>(bytes[0]) << 8 | bytes[1];
}

void put(Bytes& out, uint64_t value, size_t size) {
    for (size_t i = size; i-- > 0;) {
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

bool isGet(const uint8_t* request, size_t size) {
    if (size < smallestRequest || (request[0] & 0x0F) != typeManagement || (request[1] & 0x0F) != 2 ||
        request[4] != 0 || (request[46] & 0x0F) != actionGet || word(request + tlvAt) != tlvManagement) {
        return false;
    }
    const unsigned length = word(request + tlvAt + 2);
    return word(request + 2) == size && length % 2 == 0 && length >= 2 && tlvAt + 4 + length <= size;
}

// Header and management fields of a reply to the request; lengths come later.
Bytes replyTo(const uint8_t* request, uint64_t identity) {
    Bytes reply(request, request + tlvAt);
    std::fill(reply.begin() + 5, reply.begin() + 20, uint8_t{0});
    Bytes own;
    put(own, identity, 8);
    put(own, 1, 2);
    std::copy(own.begin(), own.end(), reply.begin() + 20);
    reply[32] = 4;
    reply[33] = 0x7F;
    std::copy(request + 20, request + 30, reply.begin() + 34);  // to the port that has asked
    reply[44] = static_cast<uint8_t>(request[44] - request[45]);
    reply[45] = reply[44];
    reply[46] = actionResponse;
    reply[47] = 0;
    return reply;
}

void setLength(Bytes& reply) {
    reply[2] = static_cast<uint8_t>(reply.size() >> 8);
    reply[3] = static_cast<uint8_t>(reply.size());
}

// The reply says that the request could not be answered, without a text.
void turnIntoError(Bytes& reply, unsigned error) {
    const unsigned id = word(reply.data() + tlvAt + 4);
    reply.resize(tlvAt);
    put(reply, tlvErrorStatus, 2);
    put(reply, 8, 2);
    put(reply, error, 2);
    put(reply, id, 2);
    put(reply, 0, 4);
    setLength(reply);
}

// The 64 bits that IEEE 1588 makes of an Ethernet address: FFFE between its halves.
uint64_t identityOf(const uint8_t* address) {
    uint64_t identity = 0;
    for (const unsigned byte : {address[0] + 0U, address[1] + 0U, address[2] + 0U, 0xFFU, 0xFEU, address[3] + 0U,
                                address[4] + 0U, address[5] + 0U}) {
        identity = identity << 8 | byte;
    }
    return identity;
}

}  // namespace

PtpDaemon::PtpDaemon(const Clock& clock, Faults& faults, const PtpScenario& network, const uint8_t* networkAddress,
                     int64_t realTimeNs)
    : clock_(clock),
      faults_(faults),
      madeIdentity_(identityOf(networkAddress)),
      realTimeNs_(realTimeNs),
      network_(network) {}

void PtpDaemon::begin(Role role) {
    role_ = role;
    crashed_ = false;
    hung_ = false;
    ++incarnation_;
    since_ = clock_.seconds();
    replies_.clear();
}

void PtpDaemon::start(const std::string& role) {
    const std::lock_guard lock(mutex_);
    begin(role == "slave" ? Role::Slave : role.starts_with("master") ? Role::Master : Role::Off);
}

void PtpDaemon::restart() {
    const std::lock_guard lock(mutex_);
    begin(role_);
}

void PtpDaemon::crash() {
    const std::lock_guard lock(mutex_);
    begin(role_);
    crashed_ = true;
}

void PtpDaemon::hang(bool on) {
    const std::lock_guard lock(mutex_);
    hung_ = on;
}

void PtpDaemon::setNetwork(const PtpScenario& network) {
    const std::lock_guard lock(mutex_);
    const bool comes = (network.linkUp && !network_.linkUp) || (network.masterPresent && !network_.masterPresent);
    if (comes || network.grandmaster != network_.grandmaster) {
        since_ = clock_.seconds();
    }
    network_ = network;
}

PtpSocketState PtpDaemon::socket() const {
    const std::lock_guard lock(mutex_);
    using Kind = PtpSocketState::Kind;
    const Kind kind = role_ == Role::Off ? Kind::Absent : crashed_ ? Kind::Stale : Kind::Open;
    return {kind, hung_, incarnation_};
}

int PtpDaemon::portState(double now) const {
    if (!network_.linkUp) {
        return stateFaulty;
    }
    const double age = now - since_;
    if (role_ == Role::Master) {
        return age < qualifying ? statePreMaster : stateMaster;
    }
    if (!network_.masterPresent || age < listening) {
        return stateListening;
    }
    return age < listening + calibrating ? stateUncalibrated : stateSlave;
}

Bytes PtpDaemon::portDataSet(double now) const {
    Bytes data;
    put(data, network_.clockIdentity != 0 ? network_.clockIdentity : madeIdentity_, 8);
    put(data, 1, 2);
    put(data, static_cast<uint64_t>(portState(now)), 1);
    put(data, 0, 1);  // a delay request each second
    put(data, static_cast<uint64_t>(std::llround(network_.pathDelayNs * 65536.0)), 8);
    put(data, 1, 1);  // an announcement each two seconds
    put(data, 3, 1);  // three may be missing
    put(data, 0, 1);  // a synchronisation each second
    put(data, 1, 1);  // delay is measured end to end
    put(data, 0, 1);
    put(data, 2, 1);  // version
    return data;
}

Bytes PtpDaemon::timeStatus(double now) const {
    const int state = portState(now);
    const bool follows = state == stateSlave || state == stateUncalibrated;
    const uint64_t own = network_.clockIdentity != 0 ? network_.clockIdentity : madeIdentity_;
    const int64_t lastSync = realTimeNs_ + static_cast<int64_t>(std::floor(now)) * 1'000'000'000;
    Bytes data;
    put(data, follows ? static_cast<uint64_t>(network_.offsetNs) : 0, 8);
    put(data, follows ? static_cast<uint64_t>(lastSync) : 0, 8);
    put(data, 0, 4 + 4 + 2 + 12);  // rate, phase and time base of the grandmaster have never changed
    put(data, follows ? 1 : 0, 4);
    put(data, follows ? network_.grandmaster : own, 8);
    return data;
}

Bytes PtpDaemon::answer(const uint8_t* request, double now) const {
    const unsigned id = word(request + tlvAt + 4);
    Bytes reply = replyTo(request, network_.clockIdentity != 0 ? network_.clockIdentity : madeIdentity_);
    const bool known = id == idPortDataSet || id == idTimeStatus;
    const Bytes data = id == idPortDataSet ? portDataSet(now) : known ? timeStatus(now) : Bytes();
    put(reply, tlvManagement, 2);
    put(reply, 2 + data.size(), 2);
    put(reply, id, 2);
    reply.insert(reply.end(), data.begin(), data.end());
    setLength(reply);
    if (!known) {
        turnIntoError(reply, errorNoSuchId);
    }
    return reply;
}

void PtpDaemon::receive(const std::string& client, const uint8_t* bytes, size_t size) {
    const std::lock_guard lock(mutex_);
    requests_.emplace_back(bytes, bytes + size);
    if (requests_.size() > 64) {
        requests_.pop_front();
    }
    if (role_ == Role::Off || crashed_ || !isGet(bytes, size)) {
        return;
    }
    const double now = clock_.seconds();
    send(client, answer(bytes, now), now);
}

void PtpDaemon::send(const std::string& client, Bytes reply, double now) {
    if (faults_.hit(FaultKind::PtpLost)) {
        return;
    }
    if (const auto fault = faults_.hit(FaultKind::PtpErrorStatus)) {
        turnIntoError(reply, fault->code != 0 ? static_cast<unsigned>(fault->code) : errorGeneral);
    }
    if (faults_.hit(FaultKind::PtpWrongId)) {
        reply[tlvAt + 5] ^= 1;
    }
    if (const auto fault = faults_.hit(FaultKind::PtpBadVersion)) {
        reply[1] = static_cast<uint8_t>(fault->code != 0 ? fault->code : 1);
    }
    if (faults_.hit(FaultKind::PtpGarbled)) {
        for (size_t i = tlvAt; i < reply.size(); ++i) {
            reply[i] = static_cast<uint8_t>(mix(i * 0x9E37 + word(reply.data() + 30)));
        }
        reply[tlvAt + 3] |= 1;  // by no chance a whole one
    }
    if (const auto fault = faults_.hit(FaultKind::PtpOversized)) {
        reply.resize(std::max(reply.size(), static_cast<size_t>(fault->code != 0 ? fault->code : 2000)));
        setLength(reply);
    }
    const auto late = faults_.hit(FaultKind::PtpLate);
    const double due = now + (late ? late->code * 0.001 : 0.0);
    const bool twice = faults_.hit(FaultKind::PtpTwice).has_value();
    for (int i = 0; i < (twice ? 2 : 1); ++i) {
        replies_.push_back({due, {client, reply}});
    }
}

std::vector<PtpDatagram> PtpDaemon::due() {
    const std::lock_guard lock(mutex_);
    std::vector<PtpDatagram> result;
    if (replies_.empty()) {
        return result;
    }
    std::stable_sort(replies_.begin(), replies_.end(),
                     [](const Reply& one, const Reply& other) { return one.dueSeconds < other.dueSeconds; });
    const double now = clock_.seconds();
    auto end = replies_.begin();
    for (; end != replies_.end() && end->dueSeconds <= now; ++end) {
        result.push_back(std::move(end->datagram));
    }
    replies_.erase(replies_.begin(), end);
    return result;
}

bool PtpDaemon::pending() const {
    const std::lock_guard lock(mutex_);
    return !replies_.empty();
}

std::vector<Bytes> PtpDaemon::requests() const {
    const std::lock_guard lock(mutex_);
    return {requests_.begin(), requests_.end()};
}

}  // namespace kestrixsim
