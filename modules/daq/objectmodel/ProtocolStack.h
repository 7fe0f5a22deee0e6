#pragma once

#include <functional>
#include <memory>
#include <vector>

namespace Harvane::RT::Modules::Daq {

class ConnectionPoint;

// One layer of a command protocol: it sends through sendCommand, which the stack binds for the lowest layer.
class ProtocolLayer {
public:
    virtual ~ProtocolLayer() = default;

    std::function<void(int, const unsigned char*, unsigned long, unsigned char*, unsigned long&, int)> sendCommand;
    unsigned long deviceId = 0;
    std::shared_ptr<ConnectionPoint> connectionPoint;
};

// Command protocol of a device over its connection point, the lowest layer first.
class ProtocolStack {
public:
    // Binds the lowest layer to the connection point and tells each layer where it belongs. Without a connection point
    // the lowest layer's sendCommand stays empty.
    void initialize();

    std::vector<std::shared_ptr<ProtocolLayer>> layers;
    std::shared_ptr<ConnectionPoint> connectionPoint;
    unsigned long deviceId = 0;
};

}  // namespace Harvane::RT::Modules::Daq
