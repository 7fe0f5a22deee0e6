#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/TopologyElement.h"

namespace Harvane::RT::Modules::Daq {

class Channel;

// A group of channels for display. Sub-folders are the children.
class ChannelFolder : public TopologyElement {
public:
    // sharedInputs: the channels of the folder look at one input.
    ChannelFolder(const std::string& name, bool sharedInputs);

    std::string getDisplayName() const override;
    void addChannel(const std::shared_ptr<Channel>& channel);
    void clearChannels();

    std::vector<std::shared_ptr<Channel>> channels;
    bool sharedInputs;
    std::string name;
};

}  // namespace Harvane::RT::Modules::Daq
