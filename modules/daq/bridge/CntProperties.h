#pragma once

#include <zorn/structure/node.h>

namespace Harvane::RT::Modules::Daq {

class CntChannel;

// The settings of a counter input as properties of the folder that holds its channels.
class CntProperties {
public:
    // Once per folder: the channels of one counter share its settings.
    static void registerOn(const Core::NodePtr<>& folder, const CntChannel& channel);
    // Takes over what the user has set.
    static void readBack(const Core::NodePtr<>& folder, CntChannel& channel);
};

}  // namespace Harvane::RT::Modules::Daq
