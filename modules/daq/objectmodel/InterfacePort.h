#pragma once

#include <memory>
#include <string>
#include <vector>

#include "modules/daq/objectmodel/ConnectionPoint.h"
#include "modules/daq/objectmodel/DaqObject.h"
#include "modules/daq/objectmodel/DaqVector.h"

namespace Harvane::RT::Modules::Daq {

// A port of an interface. The list base holds its connection points.
class InterfacePort : public DaqObject, public DaqVector<std::shared_ptr<ConnectionPoint>> {
public:
    explicit InterfacePort(const std::string& name);
    ~InterfacePort() override;

    virtual void initialize();
    virtual void connect();
    virtual void disconnect();
    virtual std::vector<std::string> enumConnectionPoints() const = 0;
    virtual std::shared_ptr<ConnectionPoint> createConnectionPoint(const std::string& id) = 0;

    void scan();

    std::string name;
    bool connected = false;
};

}  // namespace Harvane::RT::Modules::Daq
