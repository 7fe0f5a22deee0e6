#include "modules/daq/objectmodel/DaqUtils.h"

#include <cxxabi.h>
#include <cstdlib>
#include <memory>

namespace Harvane::RT::Modules::Daq {

std::string DaqUtils::getClassName(const std::string& typeName) {
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(typeName.c_str(), nullptr, nullptr, &status),
                                                     std::free);
    std::string name = status == 0 && demangled ? demangled.get() : typeName;
    auto colon = name.rfind(':');
    return colon == std::string::npos ? name : name.substr(colon + 1);
}

}  // namespace Harvane::RT::Modules::Daq
