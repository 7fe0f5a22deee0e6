#include "modules/daq/objectmodel/ProtocolStack.h"

#include "modules/daq/objectmodel/ConnectionPoint.h"

namespace Harvane::RT::Modules::Daq {

void ProtocolStack::initialize() {
    if (layers.empty()) {
        return;
    }
    layers.front()->sendCommand = nullptr;
    if (connectionPoint) {
        layers.front()->sendCommand = [target = connectionPoint](int command, const unsigned char* data,
                                                                 unsigned long length, unsigned char* answer,
                                                                 unsigned long& answerLength, int timeout) {
            target->sendCommand(command, data, length, answer, answerLength, timeout);
        };
    }
    for (const auto& layer : layers) {
        layer->deviceId = deviceId;
        layer->connectionPoint = connectionPoint;
    }
}

}  // namespace Harvane::RT::Modules::Daq
