#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tools/zornhost/CanPorts.h"
#include "tools/zornhost/ClockWatch.h"
#include "tools/zornhost/ErrorLog.h"
#include "tools/zornhost/HealthFigures.h"
#include "tools/zornhost/Session.h"

namespace zornhost {

// Gathers the instrument's figures in the process that holds it. After the preparation; must end before the session
// closes. `figures` may be asked on any thread, all else belongs to the thread of the session.
class HealthWatch {
public:
    // `clock`: null where there is none to look at; outlives this. `holder`: the command that holds the instrument.
    HealthWatch(Session& session, const ClockWatch* clock, std::string holder);
    HealthWatch(const HealthWatch&) = delete;
    HealthWatch& operator=(const HealthWatch&) = delete;

    // Amplifiers as they stand now: properties are for the session's thread alone.
    void lookAtAmplifiers();
    // Who knows of lost samples; asked on any thread, as long as it lives.
    class LossSource {
    public:
        LossSource(HealthWatch& watch, std::function<int64_t()> lostSamples) : watch_(watch) {
            watch_.setLostSamples(std::move(lostSamples));
        }
        ~LossSource() { watch_.setLostSamples(nullptr); }
        LossSource(const LossSource&) = delete;
        LossSource& operator=(const LossSource&) = delete;

    private:
        HealthWatch& watch_;
    };

    HealthFigures figures() const;

private:
    struct Stream {
        Harvane::RT::Core::ChannelPtr<> channel;
        double rate;  // Hz
    };
    struct PortChannel {
        std::string port;  // "CAN Port 1"
        CanCounts counts;
    };

    void gatherChannels();
    void setLostSamples(std::function<int64_t()> lostSamples);
    void lookAtSensors(HealthFigures& figures) const;

    Session& session_;
    const ClockWatch* const clock_;
    const std::string holder_;
    const ErrorLog errors_;
    Harvane::RT::Core::ObjectPtr<Harvane::RT::Core::IFuncObject> health_;
    std::vector<Stream> streams_;
    std::vector<PortChannel> portChannels_;

    mutable std::mutex mutex_;
    std::vector<HealthFigures::Amplifier> amplifiers_;
    std::function<int64_t()> lostSamples_;
};

}  // namespace zornhost
