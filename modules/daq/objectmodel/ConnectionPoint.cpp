#include "modules/daq/objectmodel/ConnectionPoint.h"

namespace Harvane::RT::Modules::Daq {

ConnectionPoint::ConnectionPoint(const std::string& name) : name(name) {}

void ConnectionPoint::initialize() {}

void ConnectionPoint::connect() {
    connected = true;
}

void ConnectionPoint::disconnect() {
    connected = false;
}

void ConnectionPoint::connectData() {
    dataConnected = true;
}

void ConnectionPoint::disconnectData() {
    dataConnected = false;
}

void ConnectionPoint::sendCommand(int command, const unsigned char* data, unsigned long length, int timeout) {
    unsigned long answerLength = 0;
    sendCommand(command, data, length, nullptr, answerLength, timeout);
}

}  // namespace Harvane::RT::Modules::Daq
