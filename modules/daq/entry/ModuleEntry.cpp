#include <atomic>
#include <new>

#include <zorn/structure/module.h>
#include <zorn/structure/property_classes.h>
#include <zorn/types/object_impl.h>

#include "modules/daq/entry/DriverName.h"
#include "modules/daq/entry/LibraryVersion.h"
#include "modules/daq/entry/SimpleModuleDriverImpl.h"
#include "modules/daq/entry/SimpleModuleFactoryImpl.h"
#include "modules/daq/module/DaqModuleImpl.h"
#include "modules/daq/module/LoggerConnection.h"

// What the host finds by name. No exception leaves; the host calls from one thread, its loader's.
using namespace Harvane::RT::Core;
using namespace Harvane::RT::Modules::Daq;

namespace {

using Factory = SimpleModuleFactoryImpl<true, DriverName, DaqModuleImpl>;
using Driver = SimpleModuleDriverImpl<DriverName, Factory>;

}  // namespace

// Whether the module can run with the libraries of this host. A text for a failure goes to *errorMessage, unless that
// is null.
ZORN_FUNCTION ErrCode zornCheckDependencies(IString** errorMessage) {
    return wrapHandler([&]() -> ErrCode {
        if (errorMessage != nullptr) {
            *errorMessage = nullptr;
        }
        if (!areHostLibrariesCompatible(errorMessage)) {
            return plainError(Errors::IncompatibleVersion);
        }
        const StartupFailure& failure = startupFailure();
        if (failed(failure.code) && errorMessage != nullptr) {
            checkErrorInfo(createString(errorMessage, failure.text.c_str()));
        }
        return failure.code;
    });
}

ZORN_FUNCTION ErrCode zornInitDaqModuleLibrary() {
    return wrapHandler([] {
        connectLogger();
        zornClearErrorInfo();
    });
}

// For tests of the host's property classes: an object of a class registered from here. The class stays registered.
ZORN_FUNCTION ErrCode zornIntializeTesting() {
    return wrapHandler([] {
        const auto manager = PropertyObjectManagerPtr::create();
        IPropertyObjectClass* raw = nullptr;
        checkErrorInfo(createProperyObjectClassWithName(&raw, StringPtr("test").get()));
        const PropertyObjectClassPtr testClass(ObjectPtr<IPropertyObjectClass>::take(raw));
        const ErrCode added = manager->addClass(testClass.get());
        if (added == Errors::AlreadyExists) {
            zornClearErrorInfo();
        } else {
            checkErrorInfo(added);
        }
        IPropertyObject* object = nullptr;
        checkErrorInfo(createPropertyObject(&object, manager.get(), StringPtr("Test").get()));
        ObjectPtr<IPropertyObject>::take(object).release();
    });
}

ZORN_FUNCTION ErrCode createModuleDriver(IModuleDriver** driver) {
    return wrapHandler([&]() -> ErrCode {
        IVersionInfo* raw = nullptr;
        checkErrorInfo(createVersionInfo(&raw, 1, 0, 0));
        auto version = ObjectPtr<IVersionInfo>::take(raw);
        if (driver == nullptr) {
            return plainError(Errors::ArgumentNull);
        }
        *driver = new Driver(std::move(version));
        return Errors::Success;
    });
}

ZORN_FUNCTION ErrCode createDaqModuleDriver(IModuleDriver** driver) {
    return createModuleDriver(driver);
}

ZORN_FUNCTION ErrCode createDaqModule(IModule** module) {
    if (module == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    return wrapHandler([&]() -> ErrCode {
        auto* made = new (std::nothrow) DaqModuleImpl();
        if (made == nullptr) {
            return plainError(Errors::NoMemory);
        }
        *module = made;
        return Errors::Success;
    });
}

ZORN_FUNCTION ErrCode zornCanUnload(bool* canUnload) {
    if (canUnload == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *canUnload = zornSharedLibObjectCount.load(std::memory_order_acquire) == 0;
    return Errors::Success;
}

ZORN_FUNCTION ErrCode zornGetObjectCount(size_t* count) {
    if (count == nullptr) {
        return plainError(Errors::ArgumentNull);
    }
    *count = zornSharedLibObjectCount.load(std::memory_order_acquire);
    return Errors::Success;
}
