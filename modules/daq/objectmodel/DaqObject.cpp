#include "modules/daq/objectmodel/DaqObject.h"

#include <typeinfo>

#include "modules/daq/objectmodel/DaqUtils.h"

namespace Harvane::RT::Modules::Daq {

std::string DaqObject::toString() const {
    return getClassName();
}

void DaqObject::setParent(const std::shared_ptr<DaqObject>& newParent) {
    parent = newParent;
}

std::string DaqObject::getClassName() const {
    return DaqUtils::getClassName(typeid(*this).name());
}

unsigned long DaqObject::getClassId() const {
    return typeid(*this).hash_code();
}

}  // namespace Harvane::RT::Modules::Daq
