#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <zorn/structure/channel.h>

namespace Harvane::RT::Modules::Daq {

// A definition's class as amplifiers will have it, tried on channels that nobody sees and on an amplifier that has no
// hardware: once as it is shown first, then with each value of its property "Measurement" as a user would choose it.
// Host's configuration thread.
class DefinitionTrial {
public:
    // A new channel as those have it that get the class: with all properties that an expression may name.
    using MakeChannel = std::function<Core::ChannelPtr<Core::IChannel>()>;
    // Told of the channel after each measurement has been chosen, whether or not that went well.
    using Look = std::function<void(const Core::ChannelPtr<Core::IChannel>& channel, std::int64_t measurement)>;

    struct Failure {
        std::int64_t measurement;  // its number; -1: already as it is shown first, so that the class is of no use
        std::string name;          // of the measurement, "" when it has none
        std::string property;      // that it fails on, "" when none is known
        std::string text;          // names channel and property
    };

    // Nothing that a definition holds raises an exception; one of `makeChannel` and of `look` passes.
    static std::vector<Failure> run(const std::string& className, const MakeChannel& makeChannel,
                                    const Look& look = {});
    // With the properties of an analog input's channel, and usual values.
    static Core::ChannelPtr<Core::IChannel> plainChannel();
};

}  // namespace Harvane::RT::Modules::Daq
