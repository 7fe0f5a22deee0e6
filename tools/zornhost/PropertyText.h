#pragma once

#include <zorn/objects/property_object.h>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

// Values and properties as the commands show and take them.
namespace zornhost {

// A value with its kind kept, for --json.
nlohmann::ordered_json toJson(const Harvane::RT::Core::BasePtr& value);
std::string typeName(const Harvane::RT::Core::PropertyInfoPtr& info);
bool callable(const Harvane::RT::Core::PropertyInfoPtr& info);
// The value that a property shows; empty (with the reason) when it has none to show.
Harvane::RT::Core::BasePtr readProperty(const Harvane::RT::Core::GenericPropertyObjectPtr& node,
                                        const Harvane::RT::Core::StringPtr& name, std::string* reason = nullptr);
// The text of a selection's choice beside its index.
std::string shownValue(const Harvane::RT::Core::PropertyInfoPtr& info, const Harvane::RT::Core::BasePtr& value);
// What is in force where a user has chosen something else that waits for the next start, and how that is said: " (from
// the next start on; in force: [1, []])". Both empty for a property where nothing waits.
struct PendingOption {
    Harvane::RT::Core::BasePtr inForce;
    std::string note;
};
PendingOption pendingOption(const Harvane::RT::Core::GenericPropertyObjectPtr& node, std::string_view property);
// What a user's text means for a property. For a selection a choice's text stands for its place, with or without the
// unit ("10 V", "10", "Bridge"); otherwise the text is the place, and with a "#" in front ("#1") in any case. Numbers
// may have their unit behind them; flags may be "on" and "off".
Harvane::RT::Core::BasePtr valueOf(const Harvane::RT::Core::PropertyInfoPtr& info, const std::string& text);

}  // namespace zornhost
