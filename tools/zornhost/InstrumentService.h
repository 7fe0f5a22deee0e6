#pragma once

#include <optional>

#include "tools/zornhost/ClockWatch.h"
#include "tools/zornhost/HealthWatch.h"
#include "tools/zornhost/InstrumentLock.h"
#include "tools/zornhost/InstrumentSocket.h"
#include "tools/zornhost/Output.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// What a process that holds the instrument knows of it while it measures, and tells to others on its socket. After the
// preparation, until the session closes.
class InstrumentService {
public:
    // `lock`: where others find the socket; none for an instrument that nobody else can hold. What can't be served is
    // said and left at that.
    // `holder`: the command that holds the instrument, as others are told.
    InstrumentService(Session& session, InstrumentLock* lock, Output& output, const std::string& holder);
    InstrumentService(const InstrumentService&) = delete;
    InstrumentService& operator=(const InstrumentService&) = delete;

    // Null when the module says nothing of its clock.
    const ClockWatch* clock() const { return clock_ ? &*clock_ : nullptr; }
    HealthWatch& health() { return *health_; }

private:
    std::string answer(const std::string& request) const;

    std::optional<ClockWatch> clock_;
    std::optional<HealthWatch> health_;
    std::optional<InstrumentSocket> socket_;
};

}  // namespace zornhost
