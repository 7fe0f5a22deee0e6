#include "tools/zornhost/PropertyText.h"

#include <fmt/format.h>

#include "tools/zornhost/HostTree.h"

using namespace Harvane::RT::Core;
using Json = nlohmann::ordered_json;

namespace zornhost {

// A value with its kind kept, for --json.
Json toJson(const BasePtr& value) {
    if (!value) {
        return nullptr;
    }
    if (auto list = value.asPtrOrNull<IList>()) {
        Json items = Json::array();
        const ListPtr entries(list);
        for (size_t i = 0, n = entries.getCount(); i < n; ++i) {
            items.push_back(toJson(entries.getItemAt(i)));
        }
        return items;
    }
    switch (coreTypeOf(value)) {
        case CoreType::Bool:
            return fromValue<bool>(value);
        case CoreType::Int:
            return fromValue<int64_t>(value);
        case CoreType::Float:
            return fromValue<double>(value);
        case CoreType::Ratio: {
            const auto ratio = fromValue<Ratio>(value);
            if (ratio.denominator == 1) {
                return ratio.numerator;
            }
            return valueText(value);
        }
        default:
            return valueText(value);
    }
}

std::string typeName(const PropertyInfoPtr& info) {
    if (info.isSelection() || info.getValueType() == CoreType::Enum) {
        return "selection";
    }
    switch (info.getValueType()) {
        case CoreType::Bool:
            return "bool";
        case CoreType::Int:
            return "int";
        case CoreType::Float:
            return "float";
        case CoreType::String:
            return "string";
        case CoreType::List:
            return "list";
        case CoreType::Dict:
            return "dict";
        case CoreType::Ratio:
            return "ratio";
        case CoreType::Proc:
            return "procedure";
        case CoreType::Func:
            return "function";
        case CoreType::Object:
            return "object";
        default:
            return "other";
    }
}

bool callable(const PropertyInfoPtr& info) {
    return info.getValueType() == CoreType::Proc || info.getValueType() == CoreType::Func;
}

// The value that a property shows; empty (with the reason) when it has none to show.
BasePtr readProperty(const GenericPropertyObjectPtr& node, const StringPtr& name, std::string* reason) {
    try {
        return node.getPropertyValue<BasePtr>(name);
    } catch (const ZornException& failure) {
        if (reason != nullptr) {
            *reason = failure.what();
        }
        return {};
    }
}

namespace {

// Whether the value is a place in the list of choices.
bool isChoice(const PropertyInfoPtr& info) {
    return info.isSelection() || info.getValueType() == CoreType::Enum;
}

}  // namespace

// The text of a selection's choice beside its index.
std::string shownValue(const PropertyInfoPtr& info, const BasePtr& value) {
    const ListPtr choices = info.getValuesAsList();
    if (value && isChoice(info)) {
        const auto index = fromValue<int64_t>(value);
        if (index >= 0 && static_cast<size_t>(index) < choices.getCount()) {
            return fmt::format("{} ({})", index, valueText(choices.getItemAt(static_cast<size_t>(index))));
        }
    }
    return valueText(value);
}

PendingOption pendingOption(const GenericPropertyObjectPtr& node, std::string_view property) {
    constexpr const char* chosenName = "Synchronization";
    constexpr const char* appliedName = "AppliedSynchronization";
    if (property != chosenName || !node.hasProperty(chosenName) || !node.hasProperty(appliedName)) {
        return {};
    }
    const BasePtr chosen = readProperty(node, chosenName);
    const BasePtr applied = readProperty(node, appliedName);
    if (!chosen || !applied || toJson(chosen) == toJson(applied)) {
        return {};
    }
    return {applied, fmt::format(" (from the next start on; in force: {})", valueText(applied))};
}

BasePtr valueOf(const PropertyInfoPtr& info, const std::string& text) {
    const std::string unit = info.getUnit() ? " " + valueText(info.getUnit()) : std::string();
    const bool withUnit = unit.size() > 1 && text.size() > unit.size() && text.ends_with(unit);
    const std::string bare = withUnit ? text.substr(0, text.size() - unit.size()) : text;
    if (isChoice(info)) {
        const ListPtr choices = info.getValuesAsList();
        for (size_t i = 0, n = choices.getCount(); i < n; ++i) {
            if (const std::string choice = valueText(choices.getItemAt(i)); text == choice || bare == choice) {
                return toValue(i);
            }
        }
        // "#1" is the place where the text "1" is a choice of its own.
        const std::string place = text.starts_with('#') ? text.substr(1) : text;
        if (place.empty() || place.find_first_not_of("-0123456789") != std::string::npos) {
            std::string all;
            for (size_t i = 0, n = choices.getCount(); i < n; ++i) {
                all += (i == 0 ? "" : ", ") + valueText(choices.getItemAt(i));
            }
            throw UnknownName(
                fmt::format("{} has no choice \"{}\"; it has {}{}", info.getName().toStdString(), text, all, unit));
        }
        return toValue(place);
    }
    switch (info.getValueType()) {
        case CoreType::Bool:
            if (text == "on" || text == "off") {
                return toValue(text == "on");
            }
            return toValue(text);
        case CoreType::Int:
        case CoreType::Float:
            return toValue(bare);
        default:
            return toValue(text);
    }
}

}  // namespace zornhost
