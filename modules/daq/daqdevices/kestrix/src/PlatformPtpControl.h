#pragma once

#include <memory>
#include <string>

// Switches the role of the PTP daemon and the timing driver's IRIG lines. No lock: one thread at a time.
class PlatformPtpControl {
public:
    enum STATE {
        PTP_STATE_UNKNOWN = 0,
        PTP_STATE_MASTER = 1,
        PTP_STATE_MASTER_PPS = 2,
        PTP_STATE_MASTER_STANDALONE = 3,
        PTP_STATE_SLAVE = 4,
        PTP_STATE_SLAVE_IRIG_OUT = 5,     // reads back as SLAVE
        PTP_STATE_DISABLED_IRIG_OUT = 6,  // this and the two below read back as UNKNOWN
        PTP_STATE_DISABLED_IRIG_IN = 7,
        PTP_STATE_DISABLED = 8,
    };

    PlatformPtpControl();
    ~PlatformPtpControl();

    // Changes the running daemon and, when the script has agreed, the IRIG lines. True on success; false when the
    // script refuses. Throws std::system_error when the script can't be run or a line can't be switched.
    bool setActiveState(STATE state);
    // Changes only what the script stores for the next start of the daemon.
    bool setConfiguredState(STATE state);
    STATE getState();
    // What a reply to the script's "status" tells of.
    static STATE stateOf(const std::string& reply);

    // Correction between pulse and PTP time, in nanoseconds. False when the driver doesn't take it.
    bool setPpsToPtpDelay(int nanoseconds);

private:
    struct pimpl_s;
    std::unique_ptr<pimpl_s> pimpl_;
};
