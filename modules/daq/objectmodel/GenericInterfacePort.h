#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/InterfacePort.h"

namespace Harvane::RT::Modules::Daq {

// Port of a helper's family: it has exactly one connection point, of the port's own name.
template <class Helper, class ConnectionPointType>
class GenericInterfacePort : public InterfacePort {
public:
    GenericInterfacePort(const std::string& name, const std::shared_ptr<Helper>& helper)
        : InterfacePort(name), helper_(helper) {}

    std::vector<std::string> enumConnectionPoints() const override { return {name}; }

    std::shared_ptr<ConnectionPoint> createConnectionPoint(const std::string& id) override {
        return std::make_shared<ConnectionPointType>(id, helper_);
    }

private:
    std::shared_ptr<Helper> helper_;
};

}  // namespace Harvane::RT::Modules::Daq
