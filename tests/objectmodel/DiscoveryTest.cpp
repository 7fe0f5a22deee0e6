#include <gtest/gtest.h>

#include "modules/daq/objectmodel/DaqException.h"
#include "modules/daq/objectmodel/DaqFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactory.h"
#include "modules/daq/objectmodel/DaqObjectFactoryManager.h"
#include "modules/daq/objectmodel/FixedInterfacePort.h"
#include "modules/daq/objectmodel/GenericDeviceFactory.h"
#include "modules/daq/objectmodel/GenericInterface.h"
#include "modules/daq/objectmodel/GroupDevice.h"
#include "modules/daq/objectmodel/SystemDevice.h"

using namespace Harvane::RT::Modules::Daq;

namespace {

class FoundDevice : public Device {};
class SecondDevice : public Device {};
class RootDevice : public SystemDevice {};

struct At10 {
    const char* interfaceName = "FixedInterface";
    const char* connectionPointName = "ID_10";
};
struct At20 {
    const char* interfaceName = "FixedInterface";
    const char* connectionPointName = "ID_20";
};
struct Elsewhere {
    const char* interfaceName = "OtherInterface";
    const char* connectionPointName = "ID_10";
};

/// A port with two connection points, which no fixed port has.
class WideHelper : public StaticInterfaceHelper {
public:
    WideHelper() : StaticInterfaceHelper("Wide", {"port"}) {}
};
class WidePort : public GenericInterfacePort<WideHelper, GenericConnectionPoint<WideHelper>> {
public:
    using GenericInterfacePort::GenericInterfacePort;
    std::vector<std::string> enumConnectionPoints() const override { return {"left", "right"}; }
};
struct Left {
    const char* interfaceName = "Wide";
    const char* connectionPointName = "left";
};
struct Right {
    const char* interfaceName = "Wide";
    const char* connectionPointName = "right";
};

using FixedInterface = GenericInterface<FixedInterfaceHelper, FixedInterfacePort>;
using WideInterface = GenericInterface<WideHelper, WidePort>;

template <class T, class Parameters>
std::shared_ptr<DeviceFactory> deviceFactory() {
    return std::make_shared<GenericDeviceFactory<T, Parameters>>();
}

class Discovery : public testing::Test {
protected:
    Discovery() {
        interfaces.push_back(std::make_shared<FixedInterface>());
        interfaces.push_back(std::make_shared<WideInterface>());
        interfaces.initialize();
        interfaces.scan();
        factory.deviceFactories.clear();
    }
    std::vector<std::string> children(const std::shared_ptr<SystemDevice>& root) {
        std::vector<std::string> names;
        for (const auto& child : *root) {
            names.push_back(child->getClassName());
        }
        return names;
    }
    Interfaces interfaces;
    DaqFactory factory;
};

using Names = std::vector<std::string>;

}

TEST_F(Discovery, WithoutDevicesTheRootIsBare) {
    factory.deviceFactories = {deviceFactory<FoundDevice, Elsewhere>()};
    auto root = factory.createSystemDevice(interfaces);
    EXPECT_EQ(root->getClassName(), "SystemDevice");
    EXPECT_TRUE(root->empty());
}

TEST_F(Discovery, TheFirstFactoryThatKnowsTheConnectionPointWins) {
    factory.deviceFactories = {deviceFactory<FoundDevice, Elsewhere>(), deviceFactory<FoundDevice, At20>(),
                               deviceFactory<SecondDevice, At10>(), deviceFactory<FoundDevice, At10>()};
    auto root = factory.createSystemDevice(interfaces);
    EXPECT_EQ(children(root), (Names{"SecondDevice", "FoundDevice"}));
    auto device = std::dynamic_pointer_cast<Device>(root->front());
    ASSERT_TRUE(device->connectionPoint);
    EXPECT_EQ(device->connectionPoint->name, "ID_10");
}

TEST_F(Discovery, DevicesOnOnePortStandInAGroup) {
    factory.deviceFactories = {deviceFactory<FoundDevice, Left>(), deviceFactory<SecondDevice, Right>(),
                               deviceFactory<FoundDevice, At10>()};
    auto root = factory.createSystemDevice(interfaces);
    EXPECT_EQ(children(root), (Names{"FoundDevice", "GroupDevice"}));
    auto group = std::dynamic_pointer_cast<GroupDevice>(root->back());
    ASSERT_EQ(group->size(), 2u);
    EXPECT_EQ(group->front()->getClassName(), "FoundDevice");
    EXPECT_EQ(group->back()->getClassName(), "SecondDevice");

    factory.deviceFactories = {deviceFactory<SecondDevice, Right>()};
    EXPECT_EQ(children(factory.createSystemDevice(interfaces)), (Names{"SecondDevice"}));
}

TEST_F(Discovery, ASystemDeviceBecomesTheRootItself) {
    factory.deviceFactories = {deviceFactory<FoundDevice, At10>(), deviceFactory<RootDevice, At20>()};
    auto root = factory.createSystemDevice(interfaces);
    EXPECT_EQ(root->getClassName(), "RootDevice");
    EXPECT_EQ(children(root), (Names{"FoundDevice"}));
}

TEST_F(Discovery, ADeviceOnNoPortIsLeftOut) {
    DaqVector<std::shared_ptr<Device>> devices{std::make_shared<FoundDevice>()};
    EXPECT_TRUE(factory.createGroupsWithSameInterfacePort(devices, interfaces).empty());
}

namespace {

class ThrowingDevice : public Device {
public:
    ThrowingDevice() { throw std::runtime_error("no board"); }
};

class Widget : public Device {};
namespace other {
class Widget : public Device {};
}

}

TEST_F(Discovery, AFailingDeviceConstructorPassesThrough) {
    factory.deviceFactories = {deviceFactory<ThrowingDevice, At10>()};
    EXPECT_THROW(factory.createSystemDevice(interfaces), std::runtime_error);
}

TEST(DaqObjectFactoryManager, RegistersEachClassAndNameOnceInOrder) {
    static DaqObjectFactory<Widget, DaqObjectFactoryType::Device> first;
    static DaqObjectFactory<Widget, DaqObjectFactoryType::Device> again;
    static DaqObjectFactory<other::Widget, DaqObjectFactoryType::Device> sameName;
    static DaqObjectFactory<FoundDevice, DaqObjectFactoryType::Device> next;
    static DaqObjectFactory<WideInterface, DaqObjectFactoryType::Interface> interface;
    static DaqObjectFactory<GenericDeviceFactory<FoundDevice, Left>, DaqObjectFactoryType::DeviceFactory> finder;
    for (IDaqObjectFactory* factory : std::initializer_list<IDaqObjectFactory*>{&first, &again, &sameName, &next,
                                                                                &interface, &finder}) {
        DaqObjectFactoryManager::registerObjectFactory(factory);
    }
    EXPECT_EQ(DaqObjectFactoryManager::getObjectFactories(DaqObjectFactoryType::Device),
              (std::vector<IDaqObjectFactory*>{&first, &next}));
    EXPECT_EQ(DaqObjectFactoryManager::findObjectFactory("WidePort>"), &interface);
    EXPECT_EQ(DaqObjectFactoryManager::findObjectFactory("Nothing"), nullptr);

    std::shared_ptr<DaqObject> made(DaqObjectFactoryManager::createInstance("FoundDevice"));
    EXPECT_TRUE(std::dynamic_pointer_cast<FoundDevice>(made));
    std::shared_ptr<DaqObject> byId(DaqObjectFactoryManager::createInstance(made->getClassId()));
    EXPECT_EQ(byId->getClassName(), "FoundDevice");
    EXPECT_THROW(DaqObjectFactoryManager::createInstance("Nothing"), InvalidTypeException);
    EXPECT_THROW(DaqObjectFactoryManager::createInstance(0ul), InvalidTypeException);

    // A DaqFactory made now finds the registered interface and device factory.
    DaqFactory factory;
    Interfaces interfaces;
    factory.createInterfaces(interfaces);
    interfaces.scan();
    ASSERT_EQ(interfaces.size(), 1u);
    auto root = factory.createSystemDevice(interfaces);
    ASSERT_EQ(root->size(), 1u);
    EXPECT_EQ(root->front()->getClassName(), "FoundDevice");
}
