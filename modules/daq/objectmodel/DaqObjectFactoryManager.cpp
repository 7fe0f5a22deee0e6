#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"

#include "modules/daq/objectmodel/DaqException.h"

namespace Harvane::RT::Modules::Daq {

namespace DaqObjectFactoryTypes {

constinit IDaqObjectFactory* factories[maxFactories] = {};
constinit int factoriesCount = 0;

}  // namespace DaqObjectFactoryTypes

namespace {

using namespace DaqObjectFactoryTypes;

template <class Predicate>
IDaqObjectFactory* findFactory(Predicate matches) {
    for (int i = 0; i < factoriesCount; ++i) {
        if (matches(*factories[i])) {
            return factories[i];
        }
    }
    return nullptr;
}

DaqObject* createFrom(IDaqObjectFactory* factory) {
    if (!factory) {
        throw InvalidTypeException();
    }
    return factory->createInstance();
}

}  // namespace

void DaqObjectFactoryManager::registerObjectFactory(IDaqObjectFactory* factory) {
    if (factoriesCount == maxFactories || findObjectFactory(factory->getClassId()) ||
        findObjectFactory(factory->getClassName())) {
        return;
    }
    factories[factoriesCount++] = factory;
}

DaqObject* DaqObjectFactoryManager::createInstance(unsigned long classId) {
    return createFrom(findObjectFactory(classId));
}

DaqObject* DaqObjectFactoryManager::createInstance(const std::string& name) {
    return createFrom(findObjectFactory(name));
}

IDaqObjectFactory* DaqObjectFactoryManager::findObjectFactory(unsigned long classId) {
    return findFactory([&](IDaqObjectFactory& factory) { return factory.getClassId() == classId; });
}

IDaqObjectFactory* DaqObjectFactoryManager::findObjectFactory(const std::string& name) {
    return findFactory([&](IDaqObjectFactory& factory) { return factory.getClassName() == name; });
}

std::vector<IDaqObjectFactory*> DaqObjectFactoryManager::getObjectFactories(DaqObjectFactoryType type) {
    std::vector<IDaqObjectFactory*> found;
    for (int i = 0; i < factoriesCount; ++i) {
        if (factories[i]->getObjectFactoryType() == type) {
            found.push_back(factories[i]);
        }
    }
    return found;
}

}  // namespace Harvane::RT::Modules::Daq
