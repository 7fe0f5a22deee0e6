#pragma once

#include <string>

namespace Harvane::RT::Modules::Daq {

// Makes amplifier definitions known to the host, for users outside of the module.
class IDaqAmplifiersFactory {
public:
    virtual ~IDaqAmplifiersFactory() = default;
    virtual void registerAmplifiers(const std::string& directory) = 0;
    virtual void unregisterAmplifiers() = 0;
};

}  // namespace Harvane::RT::Modules::Daq
