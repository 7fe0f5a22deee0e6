#pragma once

#include <string>

#include "modules/daq/objectmodel/DaqObject.h"

namespace Harvane::RT::Modules::Daq {

enum class DaqObjectFactoryType : int { Interface = 1, DeviceFactory = 2, Device = 3 };

// Creates the objects of one registered class. Factories are static objects and are never deleted through this type.
class IDaqObjectFactory {
public:
    // A new object. The caller owns it and wraps it in a shared_ptr at once.
    virtual DaqObject* createInstance() = 0;
    virtual std::string getClassName() const = 0;
    virtual unsigned long getClassId() const = 0;
    virtual DaqObjectFactoryType getObjectFactoryType() const = 0;

protected:
    ~IDaqObjectFactory() = default;
};

}  // namespace Harvane::RT::Modules::Daq
