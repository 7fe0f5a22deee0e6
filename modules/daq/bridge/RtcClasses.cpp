#include "modules/daq/bridge/RtcClasses.h"

#include <mutex>

#include <zorn/objects/property_object.h>

namespace Harvane::RT::Modules::Daq {

using namespace Core;

namespace {

std::mutex& usersMutex() {
    static std::mutex mutex;
    return mutex;
}

int users = 0;  // objects that keep the classes registered

PropertyObjectClassPtr newClass(const char* name, const char* parent = nullptr) {
    auto objectClass = PropertyObjectClassPtr::create();
    objectClass.setName(name);
    if (parent != nullptr) {
        objectClass.setParent(parent);
    }
    return objectClass;
}

// The routes belong to a setup: loading one takes them over whatever the state before was.
PropertyInfoPtr routeProperty(const char* name, CoreType type) {
    constexpr ConfigurationMode load = 1;
    constexpr PropertyState anyState = 7;
    return PropertyInfoPtr::create(name, type).configurationAction(load, anyState, ConfigurationAction::TakeOver);
}

// A class that another library has put there in the meantime stays.
void addClass(const PropertyObjectClassPtr& objectClass) {
    const ErrCode code = PropertyObjectManagerPtr::create()->addClass(objectClass.get());
    if (code == Errors::AlreadyExists) {
        zornClearErrorInfo();
        return;
    }
    checkErrorInfo(code);
}

void removeClass(const char* name) noexcept {
    try {
        if (failed(PropertyObjectManagerPtr::create()->removeClass(StringPtr(name).get()))) {
            zornClearErrorInfo();
        }
    } catch (const std::exception&) {
        // Without memory for a name the class stays, which harms nobody.
    }
}

}  // namespace

RtcClasses::RtcClasses() {
    const std::lock_guard lock(usersMutex());
    if (users == 0) {
        registerCanClass();
        registerAOClass();
    }
    ++users;
}

RtcClasses::~RtcClasses() {
    const std::lock_guard lock(usersMutex());
    if (--users == 0) {
        unregisterCanClass();
        unregisterAOClass();
    }
}

void RtcClasses::registerCanClass() {
    const auto can = newClass(CanClass);
    can.registerProperty(routeProperty(EnabledProp, CoreType::Bool).defaultValue(false));
    can.registerProperty(routeProperty(MessagesProp, CoreType::List).defaultValue(ListPtr::create()));
    addClass(can);
    const auto canV1 = newClass(CanV1Class, CanClass);
    canV1.registerProperty(routeProperty(OutputRateProp, CoreType::Int).defaultValue(10));
    addClass(canV1);
}

void RtcClasses::registerAOClass() {
    const auto analogOutput = newClass(AOClass);
    analogOutput.registerProperty(routeProperty(EnabledProp, CoreType::Bool).defaultValue(false));
    analogOutput.registerProperty(routeProperty(ChIndexProp, CoreType::String));
    analogOutput.registerProperty(routeProperty(ScalingTypeProp, CoreType::Enum)
                                      .values(ListPtr::create({toValue("Direct"), toValue("From range")}))
                                      .defaultValue(0));
    addClass(analogOutput);
}

void RtcClasses::unregisterCanClass() noexcept {
    removeClass(CanV1Class);
    removeClass(CanClass);
}

void RtcClasses::unregisterAOClass() noexcept {
    removeClass(AOClass);
}

}  // namespace Harvane::RT::Modules::Daq
