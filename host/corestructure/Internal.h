#pragma once

#include <zorn/structure/module.h>

// Interfaces between the objects of this library. Nobody outside asks for them.
namespace Harvane::RT::Core {

// The data object's side that takes the clock which a module has registered.
class IClockReceiver : public IBaseObject {
    ZORN_INTERFACE(IClockReceiver, IBaseObject)

    virtual ErrCode setClockProvider(IClockProvider* clock) = 0;  // null forgets
};

class IRegisteredProviders : public IBaseObject {
    ZORN_INTERFACE(IRegisteredProviders, IBaseObject)

    virtual ErrCode getProviders(IClockProvider** clock, ILoopProvider** loop, IAbsTimeProvider** absTime) = 0;
};

}  // namespace Harvane::RT::Core
