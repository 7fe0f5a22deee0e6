#include "modules/daq/objectmodel/InterfacePort.h"

namespace Harvane::RT::Modules::Daq {

InterfacePort::InterfacePort(const std::string& name) : name(name) {}

InterfacePort::~InterfacePort() {
    if (connected) {
        InterfacePort::disconnect();
    }
}

void InterfacePort::initialize() {}

void InterfacePort::connect() {
    connected = true;
    for (const auto& connectionPoint : *this) {
        connectionPoint->connect();
    }
}

void InterfacePort::disconnect() {
    for (const auto& connectionPoint : *this) {
        if (connectionPoint->connected) {
            connectionPoint->disconnect();
        }
    }
    connected = false;
}

void InterfacePort::scan() {
    clear();
    int counter = 0;
    for (const auto& id : enumConnectionPoints()) {
        auto connectionPoint = createConnectionPoint(id);
        connectionPoint->setParent(shared_from_this());
        connectionPoint->index = counter++;
        connectionPoint->initialize();
        connectionPoint->connect();
        push_back(connectionPoint);
    }
}

}  // namespace Harvane::RT::Modules::Daq
