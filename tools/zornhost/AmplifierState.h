#pragma once

#include <string>
#include <vector>

#include "tools/zornhost/HostTree.h"

// How amplifiers stand, as the module says it in two hidden properties of their channels. A module that says nothing
// of it counts as one whose amplifiers have taken all.
namespace zornhost {

struct AmplifierState {
    std::string settings;  // in force: "Measurement: Bridge; Range: 5 mV/V; ..."; "" when that isn't known
    std::string failure;   // of the latest request: "Range: refused with status 3"; "" when it is in force
};

// An amplifier that has not taken what was asked of it.
struct AmplifierRefusal {
    std::string module;  // name of the folder that its channels are in: "AI 1"
    std::string asked;   // the settings that are not in force, as they were asked for; "" when that isn't known
    std::string reason;

    // "Range 5 V, Excitation 6 mA: Update: refused with status 3"
    std::string text() const { return asked.empty() ? reason : asked + ": " + reason; }
};

struct Setting {
    std::string name;  // as the definition names it; behind it a property of another name may stand
    Harvane::RT::Core::PropertyInfoPtr info;
    bool readOnly;
};

// The settings that an amplifier's channel offers now, in the definition's order.
std::vector<Setting> settingsOf(const Harvane::RT::Core::ChannelPtr<>& channel);
// A setting's value as it is shown: "10 V", "Bridge", "on".
std::string settingText(const Harvane::RT::Core::PropertyInfoPtr& info, const Harvane::RT::Core::BasePtr& value);
bool visible(const Harvane::RT::Core::PropertyInfoPtr& info);
std::string unitText(const Harvane::RT::Core::PropertyInfoPtr& info);
std::string withUnit(const std::string& text, const std::string& unit);

// Of the channel itself.
AmplifierState amplifierState(const Harvane::RT::Core::ChannelPtr<>& channel);
// Of the amplifiers behind these channels, each once, as they stand now. `earlier` says what was asked for; one of them
// that a later round has put in force is none any more.
std::vector<AmplifierRefusal> amplifierRefusals(const std::vector<ChannelEntry>& channels,
                                                const std::vector<AmplifierRefusal>& earlier = {});
// Lets an amplifier take what its channel's properties ask for. With `adjustFilter` the high-pass filter goes back to
// its default where its choices have changed. Raises what the module refuses in whole, and std::runtime_error for a
// channel that shows no amplifier.
void updateAmplifier(const Harvane::RT::Core::ChannelPtr<>& channel, bool adjustFilter);
// The same for all amplifiers behind these channels, once more where no answer came, and what they did not take.
std::vector<AmplifierRefusal> updateAmplifiers(const HostTree& tree, const std::vector<ChannelEntry>& channels);
// The folder of a channel's path, or of a folder's; and its name, which is the module's.
std::string parentOf(const std::string& path);
std::string moduleOf(const std::string& channelPath);

}  // namespace zornhost
