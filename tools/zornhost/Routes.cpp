#include "tools/zornhost/Routes.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <stdexcept>

#include "tools/zornhost/CanPorts.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr int realTimeOperation = 2;
ChannelEntry oneChannel(Session& session, const std::string& pattern) {
    const auto found = session.tree().channels({pattern});
    if (found.size() != 1) {
        throw std::runtime_error(
            fmt::format("a route has one channel at each end; \"{}\" fits {}", pattern, found.size()));
    }
    return found.front();
}

// The message rate that the module makes of it is divided out of the cycle rate, both whole.
int64_t messageRate(const Route& route, int64_t cyclesPerSecond) {
    const int64_t rate = cyclesPerSecond / route.every;
    if (rate > 0 && cyclesPerSecond / rate == route.every) {
        return rate;
    }
    const int64_t nearest = rate > 0 ? cyclesPerSecond / rate : cyclesPerSecond;
    throw std::runtime_error(
        fmt::format("a message on every {} cycles can't be had at {} cycles a second: messages per second are a whole "
                    "number; every "
                    "{} can",
                    route.every, cyclesPerSecond, nearest));
}

struct PortRoutes {
    CanPort port;
    int64_t rate = 0;
    ListPtr messages = ListPtr::create();
};

PropertyObjectPtr<> routeObject(const ChannelEntry& entry) {
    if (!entry.channel.hasProperty("RTC")) {
        throw std::runtime_error(fmt::format("nothing can be routed to \"{}\"", entry.label));
    }
    return PropertyObjectPtr<>(entry.channel.getPropertyValue<BasePtr>("RTC").asPtr<IPropertyObject>());
}

}  // namespace

std::string applyRoutes(Session& session, const std::vector<std::string>& texts, std::vector<ChannelEntry>& chosen) {
    std::string lines;
    if (texts.empty()) {
        return lines;
    }
    const auto ports = canPorts(session.tree());
    const int64_t cyclesPerSecond = 1000 / session.host().scheduler().cycleTimeMs();
    const auto use = [&chosen](const ChannelEntry& entry) {
        entry.channel.setUsed(true);
        if (std::none_of(chosen.begin(), chosen.end(), [&](const auto& other) { return other.path == entry.path; })) {
            chosen.push_back(entry);
        }
    };
    std::map<int, PortRoutes> byPort;
    for (const auto& text : texts) {
        const Route route = routeFromText(text);
        lines += (lines.empty() ? "" : "\n") + routeText(route);
        const ChannelEntry source = oneChannel(session, route.source);
        source.channel.setUsed(true);
        if (!route.can) {
            const ChannelEntry target = oneChannel(session, route.target);
            const auto object = routeObject(target);
            if (!object.hasProperty("ChIndex")) {
                throw std::runtime_error(fmt::format("\"{}\": \"{}\" is no analog output", text, target.label));
            }
            object.setPropertyValue("ChIndex", source.channel.getNodeId());
            object.setPropertyValue("ScalingType", route.byRange ? 1 : 0);
            object.setPropertyValue("Enabled", true);
            use(target);
            continue;
        }
        const CanPort port = findPort(ports, route.target);
        if (!port.output) {
            throw std::runtime_error(fmt::format("{} can't send: it has no output channel", port.name()));
        }
        const int64_t rate = messageRate(route, cyclesPerSecond);
        auto [place, isNew] = byPort.try_emplace(port.number, PortRoutes{port, rate});
        if (place->second.rate != rate) {
            throw std::runtime_error(
                fmt::format("\"{}\": all messages of {} go out on the same cycles", text, port.name()));
        }
        place->second.messages.pushBack(
            asBase(ListPtr::create({toValue(static_cast<int64_t>(route.id)), asBase(source.channel.getNodeId())})));
    }
    for (const auto& [number, routes] : byPort) {
        const auto object = routeObject(routes.port.input);
        object.setPropertyValue("Messages", asBase(routes.messages));
        object.setPropertyValue("OutputRate", routes.rate);
        object.setPropertyValue("Enabled", true);
        session.set(session.tree().property(routes.port.input.path + "/OperationMode"), "ReadWriteAcq");
        use(*routes.port.output);
    }
    session.host().data().setPropertyValue("OperationMode", realTimeOperation);
    return lines;
}

}  // namespace zornhost
