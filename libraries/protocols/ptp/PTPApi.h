#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "libraries/utils/Expected.h"

// Asks the PTP daemon of this machine how its port stands. Every question is a datagram to the daemon and a wait for
// its answer: 100 ms as a rule, 1 s at most, when signals keep interrupting. Nothing is answered from memory.
//
// No locks: the callers of one object take turns. Two objects of a process may be used from two threads at a time.
class PTPApi {
public:
    struct Config {
        int32_t verbose = 0;  // not 0: the client's messages go to standard output, too
        int32_t logging_level =
            0;  // of syslog, 0 to 7; what is beyond counts as the nearest. 0 keeps the client silent
    };

    // Numbers of IEEE 1588-2008, table 8.
    enum class PortState : uint8_t {
        NONE = 0,
        INITIALIZING = 1,
        FAULTY = 2,
        DISABLED = 3,
        LISTENING = 4,
        PRE_MASTER = 5,
        MASTER = 6,
        PASSIVE = 7,
        UNCALIBRATED = 8,
        SLAVE = 9,
        GRAND_MASTER = 10,  // has a name, and is never an answer: it reads as NONE
    };

    enum class ErrorCondition : uint8_t {
        OK = 0,
        TIMEOUT = 1,      // no reply within the time
        IO_ERROR = 2,     // the wait failed, or was ended by something else than data
        PARSE_ERROR = 3,  // the reply was not the one asked for, or none that can be read
    };

    // The client could not be set up.
    class RuntimeError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    template <typename T>
    using Result = utils::expected<T, ErrorCondition>;

    // Makes the client's own socket, "/var/run/ptpapi.PID". No daemon is needed for that. Throws RuntimeError.
    explicit PTPApi(Config config);
    // Closes and removes the socket.
    ~PTPApi();
    PTPApi(const PTPApi&) = delete;
    PTPApi& operator=(const PTPApi&) = delete;

    // None of these throws. A reply that comes after its time answers the next question of the same kind.
    Result<PortState> port_state();
    Result<std::string> port_identity();  // "02a0b1.fffe.c2d3e4-1"
    Result<std::string> gm_identity();    // "021122.33ff.fe4455"
    Result<bool> gm_present();            // whether there is a grandmaster other than this clock

    static std::string to_string(PortState state);       // "SLAVE"; "unknown" for what has no name
    static std::string to_string(ErrorCondition error);  // "timeout"; "unknown" for what has no name

private:
    class pimpl;
    std::unique_ptr<pimpl> pimpl_;
};
