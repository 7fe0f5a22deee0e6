#include "tools/zornhost/HealthFigures.h"

#include <fmt/format.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <type_traits>

namespace zornhost {

using Json = nlohmann::ordered_json;

namespace {

// The names and the order in which all is written and read.
template <class T, class Visit>
void eachMember(T& value, const Visit& visit) {
    using Plain = std::remove_const_t<T>;
    if constexpr (std::is_same_v<Plain, HealthFigures::Sensor>) {
        visit("group", value.group);
        visit("name", value.name);
        visit("place", value.place);
        visit("celsius", value.celsius);
        visit("ok", value.ok);
        visit("reason", value.reason);
        visit("reads", value.reads);
        visit("failures", value.failures);
        visit("ageSeconds", value.ageSeconds);
    } else if constexpr (std::is_same_v<Plain, HealthFigures::Line>) {
        visit("name", value.name);
        visit("place", value.place);
        visit("value", value.value);
        visit("reason", value.reason);
    } else if constexpr (std::is_same_v<Plain, HealthFigures::Amplifier>) {
        visit("module", value.module);
        visit("fitted", value.fitted);
        visit("failure", value.failure);
    } else if constexpr (std::is_same_v<Plain, HealthFigures::PortCount>) {
        visit("port", value.port);
        visit("value", value.value);
        visit("text", value.text);
        visit("isLoss", value.isLoss);
    } else if constexpr (std::is_same_v<Plain, HealthFigures::Error>) {
        visit("source", value.source);
        visit("text", value.text);
        visit("count", value.count);
        visit("lastUs", value.lastUs);
    } else {
        visit("timeUs", value.timeUs);
        visit("holder", value.holder);
        visit("supply", value.supply);
        visit("sensors", value.sensors);
        visit("lines", value.lines);
        visit("sensorFailure", value.sensorFailure);
        visit("amplifiers", value.amplifiers);
        visit("ports", value.ports);
        visit("portCounts", value.portCounts);
        visit("streams", value.streams);
        visit("streamsSilent", value.streamsSilent);
        visit("mostDescriptors", value.mostDescriptors);
        visit("driverDescriptors", value.driverDescriptors);
        visit("samplesLost", value.samplesLost);
        visit("errors", value.errors);
    }
}

}  // namespace

// Found by the library for the parts of the figures.
template <class T>
concept FiguresPart = std::is_same_v<T, HealthFigures::Sensor> || std::is_same_v<T, HealthFigures::Line> ||
                      std::is_same_v<T, HealthFigures::Amplifier> || std::is_same_v<T, HealthFigures::PortCount> ||
                      std::is_same_v<T, HealthFigures::Error>;
template <FiguresPart Part>
void to_json(Json& json, const Part& part) {
    eachMember(part, [&json](const char* name, const auto& value) { json[name] = value; });
}
template <FiguresPart Part>
void from_json(const Json& json, Part& part) {
    eachMember(part, [&json](const char* name, auto& value) {
        if constexpr (std::is_floating_point_v<std::remove_reference_t<decltype(value)>>) {
            if (json.at(name).is_null()) {  // as JSON writes what is no number
                value = std::numeric_limits<double>::quiet_NaN();
                return;
            }
        }
        json.at(name).get_to(value);
    });
}

Json toJson(const HealthFigures& figures) {
    Json json;
    eachMember(figures, [&json](const char* name, const auto& value) { json[name] = value; });
    json["clock"] = figures.clock ? toJson(*figures.clock) : Json();
    return json;
}

HealthFigures healthFiguresFromJson(const Json& json) {
    try {
        HealthFigures figures;
        eachMember(figures, [&json](const char* name, auto& value) { json.at(name).get_to(value); });
        if (!json.at("clock").is_null()) {
            figures.clock = clockReportFromJson(json.at("clock"));
        }
        return figures;
    } catch (const Json::exception& failure) {
        throw std::runtime_error(fmt::format("these are no figures of an instrument: {}", failure.what()));
    }
}

}  // namespace zornhost
