#pragma once

#include <string>
#include <vector>

#include "modules/daq/objectmodel/IDaqObjectFactory.h"

namespace Harvane::RT::Modules::Daq {

namespace DaqObjectFactoryTypes {

inline constexpr int maxFactories = 999;

// Plain zero-initialised storage: static initialisers of any source file may register before others have run.
extern IDaqObjectFactory* factories[maxFactories];
extern int factoriesCount;

}  // namespace DaqObjectFactoryTypes

// The process's table of creatable classes, in the order of registration. Filled by static initialisers only; there
// is no lock and entries are never removed.
class DaqObjectFactoryManager {
public:
    DaqObjectFactoryManager() = delete;

    // A class whose identifier or name is already in the table is passed over. The factory has to outlive the
    // process's use of it. A table that is full (999 classes) passes it over too.
    static void registerObjectFactory(IDaqObjectFactory* factory);

    // Throws InvalidTypeException for a class that isn't registered. The caller owns the object.
    static DaqObject* createInstance(unsigned long classId);
    static DaqObject* createInstance(const std::string& name);

    // Null when there is none.
    static IDaqObjectFactory* findObjectFactory(unsigned long classId);
    static IDaqObjectFactory* findObjectFactory(const std::string& name);

    static std::vector<IDaqObjectFactory*> getObjectFactories(DaqObjectFactoryType type);
};

}  // namespace Harvane::RT::Modules::Daq
