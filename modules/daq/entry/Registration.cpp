#include <zorn/objects/property_object_impl.h>
#include <zorn/structure/property_classes.h>

#include "modules/daq/can/CANSocketDevice.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDevice.h"
#include "modules/daq/daqdevices/kestrix/src/KestrixDeviceFactory_CP.h"
#include "modules/daq/objectmodel/DaqObjectFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/FixedInterfaceHelper.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericDeviceFactory.h"
#include "modules/daq/objectmodel/GenericInterface.h"

// What has to be in place before the first entry point runs. The exception factories, the serialiser's factory and the
// property classes come with the host's headers; the objects that discovery may create by class are listed here.
namespace Harvane::RT::Modules::Daq {

namespace {

template <class T, DaqObjectFactoryType Type>
void registerObject() {
    static DaqObjectFactory<T, Type> factory;
    DaqObjectFactoryManager::registerObjectFactory(&factory);
}

// A failure is kept for zornCheckDependencies: thrown from here it would end the process.
[[maybe_unused]] const bool objectsRegistered = Core::runAtStartup([] {
    registerObject<GenericInterface<FixedInterfaceHelper, FixedInterfacePort>, DaqObjectFactoryType::Interface>();
    registerObject<KestrixDevice, DaqObjectFactoryType::Device>();
    registerObject<GenericDeviceFactory<KestrixDevice, KestrixDeviceFactory_CP>, DaqObjectFactoryType::DeviceFactory>();
    registerObject<CANSocketDevice, DaqObjectFactoryType::Device>();
    const Core::ErrCode code = Core::SerializerRegistration::instance().code;
    if (Core::failed(code)) {
        Core::rememberStartupFailure(code, "The host refuses the factory of property objects.");
    }
});

}  // namespace

}  // namespace Harvane::RT::Modules::Daq
