#include "tools/zornhost/AmplifierState.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "tools/zornhost/PropertyText.h"

using namespace Harvane::RT::Core;

namespace zornhost {

namespace {

constexpr const char* updateName = "UpdateAmplifier";
constexpr const char* failureName = "AmplifierFailure";
constexpr const char* settingsName = "SettingsInForce";

std::string textOf(const ChannelPtr<>& channel, const char* name) {
    return channel.hasProperty(name) ? channel.getPropertyValue<std::string>(name) : std::string();
}

// Names and values in the definition's order.
std::vector<std::pair<std::string, std::string>> shownSettings(const ChannelPtr<>& channel) {
    std::vector<std::pair<std::string, std::string>> shown;
    for (const auto& setting : settingsOf(channel)) {
        shown.emplace_back(setting.name,
                           settingText(setting.info, readProperty(channel.asPtr<IPropertyObject>(), setting.name)));
    }
    return shown;
}

}  // namespace

std::string parentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string moduleOf(const std::string& channelPath) {
    const std::string folder = parentOf(channelPath);
    return folder.substr(folder.rfind('/') + 1);
}

bool visible(const PropertyInfoPtr& info) {
    const BasePtr value = info.getVisible();
    return !value || fromValue<bool>(value);
}

std::string unitText(const PropertyInfoPtr& info) {
    const BasePtr unit = info.getUnit();
    return unit ? valueText(unit) : std::string();
}

std::string withUnit(const std::string& text, const std::string& unit) {
    return unit.empty() ? text : text + " " + unit;
}

// "10 V", "Bridge", "on".
std::string settingText(const PropertyInfoPtr& info, const BasePtr& value) {
    if (value && info.isSelection()) {
        const ListPtr choices = info.getValuesAsList();
        const auto index = fromValue<int64_t>(value);
        if (index >= 0 && static_cast<size_t>(index) < choices.getCount()) {
            return withUnit(valueText(choices.getItemAt(static_cast<size_t>(index))), unitText(info));
        }
        return fmt::format("choice {}, which is not in the list", index);
    }
    if (value && info.getValueType() == CoreType::Bool) {
        return fromValue<bool>(value) ? "on" : "off";
    }
    return value ? withUnit(valueText(value), unitText(info)) : "-";
}

std::vector<Setting> settingsOf(const ChannelPtr<>& channel) {
    std::vector<Setting> settings;
    const auto objectClass = PropertyObjectManagerPtr::create().findClass(channel.getClassName());
    if (!objectClass) {
        return settings;
    }
    IList* raw = nullptr;
    checkErrorInfo(objectClass->enumProperties(PropertyOrder::Index, &raw));
    const ListPtr infos(ObjectPtr<IList>::take(raw));
    for (size_t i = 0, n = infos.getCount(); i < n; ++i) {
        const PropertyInfoPtr declared(infos.getItemAt(i).asPtr<IPropertyInfo>());
        const std::string name = declared.getName().toStdString();
        if (declared.isHidden() || name == "AmplifierID" || name == "ModuleName") {
            continue;
        }
        const PropertyInfoPtr info = channel.getPropertyInfo(name);
        if (callable(info) || !visible(channel.getPropertyInfo(name))) {
            continue;
        }
        const BasePtr readOnly = info.getReadOnly();
        settings.push_back({name, info, readOnly && fromValue<bool>(readOnly)});
    }
    return settings;
}

AmplifierState amplifierState(const ChannelPtr<>& channel) {
    return {textOf(channel, settingsName), textOf(channel, failureName)};
}

std::vector<AmplifierRefusal> amplifierRefusals(const std::vector<ChannelEntry>& channels,
                                                const std::vector<AmplifierRefusal>& earlier) {
    std::vector<AmplifierRefusal> refusals;
    std::set<std::string> seen;
    for (const auto& entry : channels) {
        const std::string reason = amplifierState(entry.channel).failure;
        if (!reason.empty() && seen.insert(parentOf(entry.path)).second) {
            const std::string module = moduleOf(entry.path);
            const auto known = std::find_if(earlier.begin(), earlier.end(), [&](const AmplifierRefusal& other) {
                return other.module == module && other.reason == reason;
            });
            refusals.push_back({module, known == earlier.end() ? "" : known->asked, reason});
        }
    }
    return refusals;
}

void updateAmplifier(const ChannelPtr<>& channel, bool adjustFilter) {
    const BasePtr value =
        channel.hasProperty(updateName) ? readProperty(channel.asPtr<IPropertyObject>(), updateName) : BasePtr();
    const auto procedure = value ? value.asPtrOrNull<IProcObject>() : ObjectPtr<IProcObject>();
    zornClearErrorInfo();
    if (!procedure) {
        throw std::runtime_error("the module has given the channel no way to set its amplifier");
    }
    checkErrorInfo(procedure->dispatch(toValue(adjustFilter).get()));
}

std::vector<AmplifierRefusal> updateAmplifiers(const HostTree& tree, const std::vector<ChannelEntry>& channels) {
    std::set<std::string> folders;
    for (const auto& entry : channels) {
        folders.insert(parentOf(entry.path));
    }
    std::map<std::string, std::string> asked;
    // Of the channels that share an amplifier one can set it, and that need not be one of these.
    for (const auto& entry : tree.channels()) {
        if (!folders.contains(parentOf(entry.path)) || !entry.channel.hasProperty(updateName)) {
            continue;
        }
        const auto wanted = shownSettings(entry.channel);
        updateAmplifier(entry.channel, false);
        // What got no answer is still asked for; what was refused has been taken back.
        if (!amplifierState(entry.channel).failure.empty() && shownSettings(entry.channel) == wanted) {
            updateAmplifier(entry.channel, false);
        }
        const auto taken = shownSettings(entry.channel);
        std::string& text = asked[moduleOf(entry.path)];
        for (const auto& [name, value] : wanted) {
            if (std::find(taken.begin(), taken.end(), std::pair(name, value)) == taken.end()) {
                text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, value);
            }
        }
    }
    auto refusals = amplifierRefusals(channels);
    for (auto& refusal : refusals) {
        refusal.asked = asked[refusal.module];
    }
    return refusals;
}

}  // namespace zornhost
