#include "modules/daq/objectmodel/FixedInterfaceHelper.h"

namespace Harvane::RT::Modules::Daq {

namespace {

constexpr int portCount = 100;

std::vector<std::string> portNames() {
    std::vector<std::string> names;
    names.reserve(portCount);
    for (int i = 0; i < portCount; ++i) {
        names.push_back("ID_" + std::to_string(i));
    }
    return names;
}

}  // namespace

FixedInterfaceHelper::FixedInterfaceHelper() : StaticInterfaceHelper("FixedInterface", portNames()) {}

}  // namespace Harvane::RT::Modules::Daq
