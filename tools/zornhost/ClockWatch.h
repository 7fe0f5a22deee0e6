#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/zornhost/ClockReport.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// Looks at the module's clock ten times a second, on a thread of its own, and keeps what it has seen: a row a pulse for
// a day, and every change of the lock. Any thread may ask.
class ClockWatch {
public:
    // What is read of the module; a look that fails raises.
    struct Look {
        uint64_t pulses = 0;
        bool tracking = false;
        bool error = false;
        ClockRow row;  // of the last pulse; its lock is not looked at
        int64_t absTimeUs = -1;
        double acquisitionTimeS = -1.0;
        std::string ptpPort;
        std::string ptpClock;
        std::string ptpGrandmaster;
    };
    using Looker = std::function<Look()>;

    // After the configuration: the option in force is the one that is watched. Must end before the session closes.
    // Raises std::runtime_error when the module says nothing of its clock.
    explicit ClockWatch(Session& session);
    // With a clock of one's own, and looks that are taken by `look` alone.
    ClockWatch(std::string mode, bool followsNothing, Looker looker);
    ~ClockWatch();
    ClockWatch(const ClockWatch&) = delete;
    ClockWatch& operator=(const ClockWatch&) = delete;

    void look();
    ClockReport report() const;
    // Rows behind the pulse of this number, oldest first; 0 for all.
    std::vector<ClockRow> rows(uint64_t behindPulse = 0) const;
    // Changes from the one of this number on, which becomes the number of the next one to come; change 0 is how the
    // lock was found. The oldest go when there are very many.
    std::vector<ClockChange> changes(size_t& from) const;
    // What another program is answered: the report, with the rows behind a pulse where it asks for them.
    std::string answer(const std::string& request) const;

private:
    void run();
    void take(const Look& look);
    Lock lockOf(const Look& look) const;

    const std::string mode_;
    const bool followsNothing_;
    const Looker looker_;
    mutable std::mutex mutex_;
    ClockReport report_;
    std::deque<ClockRow> rows_;
    std::deque<ClockChange> changes_;
    size_t firstChange_ = 0;      // number of the oldest change that is kept
    int64_t lastSteeredUs_ = -1;  // while locked
    ClockFigures lockedFigures_;  // of the last minute with a lock
    bool everLocked_ = false;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace zornhost
