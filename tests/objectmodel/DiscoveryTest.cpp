#include <gtest/gtest.h>

#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/DaqFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericDeviceFactory.h"
#include "modules/daq/objectmodel/GenericInterface.h"
#include "modules/daq/objectmodel/SystemDevice.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

class FoundDevice : public Device {};
class SecondDevice : public Device {};
struct RootDevice : SystemDevice {
    std::string getDisplayName() const override { return "Own root"; }
};

template <int Port>
struct At {
    std::string interfaceName = "FixedInterface";
    std::string connectionPointName = "ID_" + std::to_string(Port);
};
struct Elsewhere : At<10> {
    std::string interfaceName = "OtherInterface";
};
struct Left {
    std::string interfaceName = "Wide";
    std::string connectionPointName = "left";
};
struct Right : Left {
    std::string connectionPointName = "right";
};

// A port with two connection points, which no fixed port has.
struct WideHelper : StaticInterfaceHelper {
    WideHelper() : StaticInterfaceHelper("Wide", {"port"}) {}
};
struct WidePort : GenericInterfacePort<WideHelper, GenericConnectionPoint<WideHelper>> {
    using GenericInterfacePort::GenericInterfacePort;
    std::vector<std::string> enumConnectionPoints() const override { return {"left", "right"}; }
};

using FixedInterface = GenericInterface<FixedInterfaceHelper, FixedInterfacePort>;
using WideInterface = GenericInterface<WideHelper, WidePort>;

template <class T, class Parameters>
std::shared_ptr<DeviceFactory> finds() {
    return std::make_shared<GenericDeviceFactory<T, Parameters>>();
}

}  // namespace

TEST(Discovery, FactoriesAndConnectionPointsMakeATree) {
    Interfaces interfaces;
    interfaces.push_back(std::make_shared<FixedInterface>());
    interfaces.push_back(std::make_shared<WideInterface>());
    interfaces.scan();
    using Factories = std::vector<std::shared_ptr<DeviceFactory>>;
    for (const auto& [factories, tree] :
         {std::pair{Factories{finds<FoundDevice, Elsewhere>()}, "Measurement system"},
          // The first factory that knows a connection point wins.
          {{finds<FoundDevice, Elsewhere>(), finds<FoundDevice, At<20>>(), finds<SecondDevice, At<10>>(),
            finds<FoundDevice, At<10>>()},
           "Measurement system\n+SecondDevice\n+FoundDevice"},
          {{finds<FoundDevice, Left>(), finds<SecondDevice, Right>(), finds<FoundDevice, At<10>>()},
           "Measurement system\n+FoundDevice\n+Device Group\n++FoundDevice\n++SecondDevice"},
          {{finds<SecondDevice, Right>()}, "Measurement system\n+SecondDevice"},
          {{finds<FoundDevice, At<10>>(), finds<RootDevice, At<20>>()}, "Own root\n+FoundDevice"}}) {
        DaqFactory factory;
        factory.deviceFactories.assign(factories.begin(), factories.end());
        EXPECT_EQ(factory.createSystemDevice(interfaces)->toString(), tree);
    }
}

namespace {

class Widget : public Device {};
namespace other {
class Widget : public Device {};
}  // namespace other

}  // namespace

TEST(DaqObjectFactoryManager, RegistersEachClassAndNameOnceInOrder) {
    static DaqObjectFactory<Widget, DaqObjectFactoryType::Device> first;
    static DaqObjectFactory<Widget, DaqObjectFactoryType::Device> again;
    static DaqObjectFactory<other::Widget, DaqObjectFactoryType::Device> sameName;
    static DaqObjectFactory<FoundDevice, DaqObjectFactoryType::Device> next;
    static DaqObjectFactory<WideInterface, DaqObjectFactoryType::Interface> interface;
    for (IDaqObjectFactory* factory :
         std::initializer_list<IDaqObjectFactory*>{&first, &again, &sameName, &next, &interface}) {
        DaqObjectFactoryManager::registerObjectFactory(factory);
    }
    EXPECT_EQ(DaqObjectFactoryManager::getObjectFactories(DaqObjectFactoryType::Device),
              (std::vector<IDaqObjectFactory*>{&first, &next}));
    EXPECT_EQ(DaqObjectFactoryManager::findObjectFactory("WidePort>"), &interface);

    std::shared_ptr<DaqObject> made(DaqObjectFactoryManager::createInstance("FoundDevice"));
    EXPECT_TRUE(std::dynamic_pointer_cast<FoundDevice>(made));
    std::shared_ptr<DaqObject> byId(DaqObjectFactoryManager::createInstance(made->getClassId()));
    EXPECT_EQ(byId->getClassName(), "FoundDevice");
    EXPECT_THROW(DaqObjectFactoryManager::createInstance("Nothing"), InvalidTypeException);
    EXPECT_THROW(DaqObjectFactoryManager::createInstance(0ul), InvalidTypeException);
}
