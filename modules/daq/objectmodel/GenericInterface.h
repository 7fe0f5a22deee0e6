#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/Interface.h"

namespace Harvane::RT::Modules::Daq {

// Interface of a helper's family: one port for each of the helper's identifiers.
template <class Helper, class Port>
class GenericInterface : public Interface {
public:
    GenericInterface() : helper_(std::make_shared<Helper>()) {}

    std::string getInterfaceName() const override { return helper_->getInterfaceName(); }
    std::vector<std::string> enumPorts() const override { return helper_->enumIDs(); }
    std::shared_ptr<InterfacePort> createPort(const std::string& id) override {
        return std::make_shared<Port>(id, helper_);
    }

private:
    std::shared_ptr<Helper> helper_;
};

}  // namespace Harvane::RT::Modules::Daq
