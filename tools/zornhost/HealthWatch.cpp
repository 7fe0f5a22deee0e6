#include "tools/zornhost/HealthWatch.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <set>
#include <utility>

#include "tools/zornhost/AmplifierState.h"
#include "tools/zornhost/NamedValues.h"
#include "tools/zornhost/Output.h"
#include "tools/zornhost/RateMath.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr const char* healthStateName = "HealthState";
constexpr int synchronous = 0;
constexpr double longestSilenceS = 1.0;

ObjectPtr<IFuncObject> functionOf(const GenericPropertyObjectPtr& object, const char* name) {
    return object.hasProperty(name) ? object.getPropertyValue<BasePtr>(name).asPtr<IFuncObject>()
                                    : ObjectPtr<IFuncObject>();
}

template <class Take>
void forEachOf(const BasePtr& answer, const std::string& subject, const Take& take) {
    const ListPtr list(answer.asPtr<IList>());
    for (size_t i = 0, n = list.getCount(); i < n; ++i) {
        take(NamedValues(list.getItemAt(i), subject));
    }
}

HealthFigures::Sensor sensorOf(const NamedValues& values) {
    return {values.get<std::string>("Group"), values.get<std::string>("Name"), values.get<std::string>("Place"),
            values.get<double>("Celsius"),    values.get<bool>("Ok"),          values.get<std::string>("Reason"),
            values.get<int64_t>("Reads"),     values.get<int64_t>("Failures"), values.get<double>("AgeSeconds")};
}

HealthFigures::Line lineOf(const NamedValues& values) {
    return {values.get<std::string>("Name"), values.get<std::string>("Place"), values.get<bool>("Value"),
            values.get<std::string>("Reason")};
}

std::string textOf(const CanCount& count) {
    switch (count.kind) {
        case CanCount::Kind::Loss:
            return std::string("frames lost ") + count.text;
        case CanCount::Kind::Unsent:
            return std::string("messages not sent: ") + count.text;
        default:
            return std::string(count.text).find("frames") == std::string::npos ? std::string("frames ") + count.text
                                                                               : count.text;
    }
}

}  // namespace

HealthWatch::HealthWatch(Session& session, const ClockWatch* clock, std::string holder)
    : session_(session), clock_(clock), holder_(std::move(holder)) {
    health_ = functionOf(session.tree().dataModule().asPtr<IPropertyObject>(), healthStateName);
    gatherChannels();
    lookAtAmplifiers();
}

void HealthWatch::gatherChannels() {
    for (const auto& entry : session_.tree().channels()) {
        if (isCanChannel(entry.channel)) {
            portChannels_.push_back({portOf(entry), CanCounts(entry.channel)});
        } else if (entry.channel.getType() == synchronous && entry.channel.getUsed() && hasHardware(entry.channel)) {
            streams_.push_back({entry.channel, toHz(entry.channel.getPropertyValue<Ratio>("SampleRate"))});
        }
    }
}

void HealthWatch::lookAtAmplifiers() {
    std::vector<HealthFigures::Amplifier> found;
    std::set<std::string> seen;
    for (const auto& entry : session_.tree().channels()) {
        if (entry.channel.getType() != synchronous || !seen.insert(parentOf(entry.path)).second) {
            continue;
        }
        found.push_back({moduleOf(entry.path), hasHardware(entry.channel), amplifierState(entry.channel).failure});
    }
    const std::lock_guard lock(mutex_);
    amplifiers_ = std::move(found);
}

void HealthWatch::setLostSamples(std::function<int64_t()> lostSamples) {
    const std::lock_guard lock(mutex_);
    lostSamples_ = std::move(lostSamples);
}

void HealthWatch::lookAtSensors(HealthFigures& figures) const {
    if (!health_) {
        figures.sensorFailure = "this module says nothing of its sensors";
        return;
    }
    try {
        const std::string subject = "the module's state";
        const NamedValues state(executeFunc(health_, {}), subject);
        figures.supply = state.get<std::string>("Supply");
        figures.mostDescriptors = state.get<int64_t>("MostDescriptors");
        forEachOf(state.at("Sensors"), subject,
                  [&](const NamedValues& sensor) { figures.sensors.push_back(sensorOf(sensor)); });
        forEachOf(state.at("Lines"), subject, [&](const NamedValues& line) { figures.lines.push_back(lineOf(line)); });
    } catch (const std::exception& failure) {
        figures.sensorFailure = oneLine(failure.what());
    }
}

HealthFigures HealthWatch::figures() const {
    HealthFigures figures;
    figures.timeUs =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    figures.holder = holder_;
    lookAtSensors(figures);
    if (clock_ != nullptr) {
        figures.clock = clock_->report();
    }
    figures.streams = static_cast<int64_t>(streams_.size());
    std::vector<double> seconds;
    for (const auto& stream : streams_) {
        seconds.push_back(static_cast<double>(stream.channel.getSamplesAcquired()) / stream.rate);
    }
    const double longest = seconds.empty() ? 0.0 : *std::max_element(seconds.begin(), seconds.end());
    for (const double one : seconds) {
        figures.streamsSilent += one == 0.0 || longest - one > longestSilenceS ? 1 : 0;
    }
    for (const auto& channel : portChannels_) {
        if (std::find(figures.ports.begin(), figures.ports.end(), channel.port) == figures.ports.end()) {
            figures.ports.push_back(channel.port);
        }
        for (const auto& count : channel.counts.read()) {
            if (count.kind != CanCount::Kind::Beginning) {
                figures.portCounts.push_back(
                    {channel.port, static_cast<int64_t>(count.value), textOf(count),
                     count.kind == CanCount::Kind::Loss || count.kind == CanCount::Kind::Unsent});
            }
        }
    }
    figures.errors = errors_.errors();
    const std::lock_guard lock(mutex_);
    figures.amplifiers = amplifiers_;
    figures.samplesLost = lostSamples_ ? lostSamples_() : -1;
    return figures;
}

}  // namespace zornhost
