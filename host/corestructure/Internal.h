#pragma once

#include <zorn/structure/module.h>

// Interfaces between the objects of this library. Nobody outside asks for them.
namespace Harvane::RT::Core {

// The data object's side that takes the clock which a module has registered.
class IClockReceiver : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IClockReceiver");
    virtual ErrCode setClockProvider(IClockProvider* clock) = 0;  // null forgets

protected:
    ~IClockReceiver() = default;
};

class IRegisteredProviders : public IBaseObject {
public:
    using Base = IBaseObject;
    static constexpr IntfID Id = interfaceId("IRegisteredProviders");
    virtual ErrCode getProviders(IClockProvider** clock, ILoopProvider** loop, IAbsTimeProvider** absTime) = 0;

protected:
    ~IRegisteredProviders() = default;
};

}  // namespace Harvane::RT::Core
