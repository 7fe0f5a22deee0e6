#include "modules/daq/objectmodel/Interfaces.h"

namespace Harvane::RT::Modules::Daq {

Interfaces::~Interfaces() {
    finalize();
}

void Interfaces::finalize() {
    for (const auto& interface : *this) {
        interface->finalize();
    }
    clear();
}

void Interfaces::initialize() {
    for (const auto& interface : *this) {
        interface->initialize();
    }
}

void Interfaces::scan() {
    for (const auto& interface : *this) {
        interface->scan();
    }
}

}  // namespace Harvane::RT::Modules::Daq
