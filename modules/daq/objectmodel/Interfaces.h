#pragma once

#include <memory>

#include "modules/daq/objectmodel/DaqVector.h"
#include "modules/daq/objectmodel/Interface.h"

namespace Harvane::RT::Modules::Daq {

// All interfaces of the process that owns it. Its end finalizes them.
class Interfaces : public DaqVector<std::shared_ptr<Interface>> {
public:
    Interfaces() = default;
    Interfaces(const Interfaces&) = delete;
    Interfaces& operator=(const Interfaces&) = delete;
    virtual ~Interfaces();

    void initialize();
    void scan();
    // Finalizes the interfaces and forgets them.
    void finalize();
};

}  // namespace Harvane::RT::Modules::Daq
