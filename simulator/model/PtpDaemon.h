#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "simulator/model/Clock.h"
#include "simulator/model/Faults.h"
#include "simulator/model/Scenario.h"

namespace kestrixsim {

// Whether the daemon's socket is there.
struct PtpSocketState {
    enum class Kind {
        Absent,  // no daemon, and no name
        Stale,   // the name that a dead daemon has left
        Open,
    };
    Kind kind = Kind::Absent;
    bool hung = false;         // nobody reads what comes in
    uint64_t incarnation = 0;  // changes with each daemon: what was queued for the last one is lost
};

// A datagram to a client, whose address is whatever came with the request.
struct PtpDatagram {
    std::string client;
    std::vector<uint8_t> bytes;
};

// The PTP daemon of the instrument as a client of its management interface sees it: answers to GET of two records, the
// standard's portDS (IEEE 1588-2008, 15.5.3.7.1) and the daemon's own time status, with a port whose state follows
// role, time and network. Takes requests and gives replies; sockets are the business of others. Thread-safe.
class PtpDaemon {
public:
    // `networkAddress`: six bytes, of which the clock's identity is made where the scenario names none. `realTimeNs`:
    // since 1970, at the instrument's second 0.
    PtpDaemon(const Clock& clock, Faults& faults, const PtpScenario& network, const uint8_t* networkAddress,
              int64_t realTimeNs);

    // A new daemon in the role that the platform's script has stored.
    void start(const std::string& role);
    void restart();  // the same role
    void crash();    // until the next start
    void hang(bool on);
    void setNetwork(const PtpScenario& network);

    PtpSocketState socket() const;
    void receive(const std::string& client, const uint8_t* bytes, size_t size);
    std::vector<PtpDatagram> due();                      // replies whose time has come, in order; each is given once
    bool pending() const;                                // whether there will be more
    std::vector<std::vector<uint8_t>> requests() const;  // the last 64 that came in, whatever became of them

private:
    enum class Role { Off, Slave, Master };

    struct Reply {
        double dueSeconds;
        PtpDatagram datagram;
    };

    void begin(Role role);
    int portState(double now) const;
    std::vector<uint8_t> answer(const uint8_t* request, double now) const;
    std::vector<uint8_t> portDataSet(double now) const;
    std::vector<uint8_t> timeStatus(double now) const;
    void send(const std::string& client, std::vector<uint8_t> reply, double now);

    const Clock& clock_;
    Faults& faults_;
    const uint64_t madeIdentity_;
    const int64_t realTimeNs_;
    mutable std::mutex mutex_;
    PtpScenario network_;
    Role role_ = Role::Off;
    bool crashed_ = false;
    bool hung_ = false;
    uint64_t incarnation_ = 0;
    double since_ = 0.0;  // the port began anew
    std::vector<Reply> replies_;
    std::deque<std::vector<uint8_t>> requests_;
};

}  // namespace kestrixsim
