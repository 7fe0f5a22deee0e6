#pragma once

#include <string>
#include <typeinfo>

#include "modules/daq/objectmodel/DaqUtils.h"
#include "modules/daq/objectmodel/IDaqObjectFactory.h"

namespace Harvane::RT::Modules::Daq {

// Factory of class T. One static object a class, handed to DaqObjectFactoryManager::registerObjectFactory at load.
template <class T, DaqObjectFactoryType Type>
class DaqObjectFactory final : public IDaqObjectFactory {
public:
    DaqObject* createInstance() override { return new T(); }
    std::string getClassName() const override { return DaqUtils::getClassName(typeid(T).name()); }
    unsigned long getClassId() const override { return typeid(T).hash_code(); }
    DaqObjectFactoryType getObjectFactoryType() const override { return Type; }
};

}  // namespace Harvane::RT::Modules::Daq
