#include "tools/zornhost/Routes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>
#include <optional>
#include <stdexcept>

#include "tools/zornhost/CanPorts.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr uint32_t greatestId = 0x1FFFFFFF;
constexpr int realTimeOperation = 2;
constexpr std::string_view arrow = "->";

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0) {
        text.remove_prefix(1);
    }
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
        text.remove_suffix(1);
    }
    return text;
}

std::optional<int64_t> numberOf(std::string_view text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) {
        text.remove_prefix(2);
    }
    int64_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    return failure == std::errc() && end == text.data() + text.size() && !text.empty() && value >= 0
               ? std::optional(value)
               : std::nullopt;
}

// Takes " WORD VALUE" off the end of the text.
std::optional<std::string_view> takeEnd(std::string_view& text, std::string_view word) {
    const size_t space = text.rfind(' ');
    if (space == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view value = text.substr(space + 1);
    const std::string_view before = trimmed(text.substr(0, space));
    if (!before.ends_with(word) || before.size() == word.size() || before[before.size() - word.size() - 1] != ' ') {
        return std::nullopt;
    }
    text = trimmed(before.substr(0, before.size() - word.size()));
    return value;
}

[[noreturn]] void refuse(std::string_view text, const std::string& why) {
    throw std::runtime_error(fmt::format(
        "\"{}\" is no route: {}; write it as \"AI 1/Raw input -> CAN Port 1 id 0x123 every 10\" or \"AI 1/Raw input -> "
        "AO 1 [from range]\"",
        text, why));
}

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

Route routeFromText(std::string_view text) {
    const size_t at = text.find(arrow);
    if (at == std::string_view::npos) {
        refuse(text, "there is no ->");
    }
    Route route;
    route.source = trimmed(text.substr(0, at));
    std::string_view rest = trimmed(text.substr(at + arrow.size()));
    if (const auto every = takeEnd(rest, "every")) {
        const auto cycles = numberOf(*every);
        if (!cycles || *cycles < 1) {
            refuse(text, fmt::format("\"{}\" is no number of cycles", *every));
        }
        route.every = *cycles;
        route.can = true;
    }
    if (const auto id = takeEnd(rest, "id")) {
        const auto number = numberOf(*id);
        if (!number || *number > greatestId) {
            refuse(text, fmt::format("\"{}\" is no identifier up to 0x1FFFFFFF", *id));
        }
        route.id = static_cast<uint32_t>(*number);
        route.can = true;
    } else if (route.can) {
        refuse(text, "a message has an id");
    }
    constexpr std::string_view byRange = " from range";
    if (!route.can && rest.ends_with(byRange)) {
        route.byRange = true;
        rest = trimmed(rest.substr(0, rest.size() - byRange.size()));
    }
    route.target = rest;
    if (route.source.empty() || route.target.empty()) {
        refuse(text, "a channel is missing");
    }
    return route;
}

void applyRoutes(Session& session, const std::vector<std::string>& texts, std::vector<ChannelEntry>& chosen) {
    if (texts.empty()) {
        return;
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
}

}  // namespace zornhost
