#include "modules/daq/objectmodel/Interface.h"

namespace Harvane::RT::Modules::Daq {

void Interface::initialize() {
    initialized = true;
}

void Interface::finalize() {
    for (const auto& port : *this) {
        if (port->connected) {
            port->disconnect();
        }
    }
    initialized = false;
}

void Interface::scan() {
    clear();
    for (const auto& id : enumPorts()) {
        auto port = createPort(id);
        port->setParent(shared_from_this());
        port->initialize();
        port->connect();
        if (port->connected) {
            port->scan();
        }
        push_back(port);
    }
}

}  // namespace Harvane::RT::Modules::Daq
