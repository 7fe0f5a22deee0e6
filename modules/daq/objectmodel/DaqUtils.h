#pragma once

#include <string>

namespace Harvane::RT::Modules::Daq {

class DaqUtils {
public:
    // The bare class name of a mangled type name (typeid(...).name()): demangled, then the text behind the last ":".
    // A name that can't be demangled is taken as it stands. Of a template only the tail of its last argument is left,
    // such as "FixedInterfacePort>".
    static std::string getClassName(const std::string& typeName);
};

}  // namespace Harvane::RT::Modules::Daq
