#include "tests/host/coreobjects/Objects.h"

#include <zorn/objects/property_object_impl.h>
#include <zorn/structure/property_classes.h>

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

namespace {

std::string propertyNames(const GenericPropertyObjectPtr& object, PropertyOrder order, bool visibleOnly = false) {
    std::string result;
    for (const auto& info : object.enumProperties(order, visibleOnly))
        result += (result.empty() ? "" : " ") + info.getName().toStdString();
    return result;
}

// Must be of a class that leads to "Channel".
class ChannelLike final : public GenericPropertyObjectImpl<IPropertyObject> {
protected:
    std::string_view requiredBaseClass() const override { return "Channel"; }
};

}  // namespace

TEST(Classes, namesHaveNoCaseAndAreTakenOnce) {
    const auto manager = PropertyObjectManagerPtr::create();
    const TemporaryClass test("ClassesTest");
    EXPECT_TRUE(manager.findClass("classestest") == test.objectClass);
    EXPECT_FALSE(manager.findClass("ClassesTes"));
    const auto other = PropertyObjectClassPtr::create();
    other.setName("CLASSESTEST");
    EXPECT_EQ("8000000A Property class \"CLASSESTEST\" already exists", failure([&] { manager.addClass(other); }));
    EXPECT_EQ("80000006 Property class \"Nobody\" is not registered", failure([&] { manager.removeClass("Nobody"); }));
    EXPECT_EQ("80000001", failure([&] { manager.addClass(PropertyObjectClassPtr::create()); }).substr(0, 8));
    IPropertyObjectClass* missing = nullptr;
    EXPECT_EQ(0x80000006, manager->getClass(StringPtr("Nobody").get(), &missing));
    // Another handle sees the same classes.
    EXPECT_TRUE(PropertyObjectManagerPtr::create().findClass("ClassesTest"));
}

TEST(Classes, registerTheirProperties) {
    const auto objectClass = PropertyObjectClassPtr::create();
    objectClass.setName("Registering");
    const auto info = PropertyInfoPtr::create("B", CoreType::Int);
    objectClass.registerProperty(info);
    objectClass.registerProperty(PropertyInfoPtr::create("A", CoreType::Int));
    EXPECT_EQ("80000017 Property B is registered already", failure([&] { objectClass.registerProperty(info); }));
    EXPECT_EQ("8000000A Property A already exists",
              failure([&] { objectClass.registerProperty(PropertyInfoPtr::create("A", CoreType::Int)); }));
    EXPECT_EQ("80000006 Class Registering has no property C", failure([&] { objectClass.getProperty("C"); }));
    EXPECT_EQ(1, objectClass.getProperty("A").getIndex());
    IList* list = nullptr;
    checkErrorInfo(objectClass->enumProperties(PropertyOrder::Name, &list));
    const ListPtr sorted(ObjectPtr<IList>::take(list));
    EXPECT_EQ("A", PropertyInfoPtr(sorted.getItemAt(0).asPtr<IPropertyInfo>()).getName());
}

TEST(Classes, objectsHaveThePropertiesOfTheChain) {
    TemporaryClass base("ChainBase"), derived("ChainDerived", "chainbase");
    base.objectClass.registerProperty(PropertyInfoPtr::create("Z", CoreType::Int).defaultValue(1));
    base.objectClass.registerProperty(PropertyInfoPtr::create("Covered", CoreType::Int).defaultValue(2));
    derived.objectClass.registerProperty(PropertyInfoPtr::create("M", CoreType::Int).defaultValue(makeEval("$Z + 1")));
    derived.objectClass.registerProperty(PropertyInfoPtr::create("H", CoreType::Int).hidden());
    const auto object = makeObject("ChainDerived");
    object.registerProperty(PropertyInfoPtr::create("Own", CoreType::Int).defaultValue(5));
    object.registerProperty(PropertyInfoPtr::create("Covered", CoreType::Int).defaultValue(20));
    EXPECT_EQ("1", get(object, "Z"));
    EXPECT_EQ("2", get(object, "M"));
    EXPECT_EQ("20", get(object, "Covered"));
    object.setPropertyValue("Z", "9");
    EXPECT_EQ("10", get(object, "M"));
    EXPECT_TRUE(object.hasProperty("Z"));
    EXPECT_EQ("Z M H Own Covered", propertyNames(object, PropertyOrder::Index));
    EXPECT_EQ("Z M Own Covered", propertyNames(object, PropertyOrder::Index, true));
    EXPECT_EQ("Covered H M Own Z", propertyNames(object, PropertyOrder::Name));

    // A property that comes later is seen as well; a class that goes takes its properties along.
    base.objectClass.registerProperty(PropertyInfoPtr::create("Late", CoreType::Int).defaultValue(3));
    EXPECT_EQ("3", get(object, "Late"));
    base.remove();
    EXPECT_EQ("80000006 Not found", get(object, "Late"));
    EXPECT_EQ("9", get(object, "Z"));
    EXPECT_EQ("M H Own Covered", propertyNames(object, PropertyOrder::Index));
    derived.remove();
    EXPECT_EQ("5", get(object, "Own"));
    EXPECT_FALSE(object.hasProperty("M"));
}

TEST(Classes, setClassNameRefuses) {
    TemporaryClass orphan("Orphan", "Nobody"), one("CircleOne", "CircleTwo"), two("CircleTwo", "CircleOne");
    TemporaryClass plain("PlainClass"), definition("Definition", "channel");
    const auto object = makeObject();
    EXPECT_EQ(Errors::ArgumentNull, object->setClassName(nullptr));
    object.setClassName("");
    EXPECT_EQ("8000000E Property class \"Nobody\" (of \"Nobody\") is not registered",
              failure([&] { object.setClassName("Nobody"); }));
    EXPECT_EQ("8000000E Property class \"Nobody\" (of \"Orphan\") is not registered",
              failure([&] { object.setClassName("Orphan"); }));
    EXPECT_EQ("8000000E The parents of property class \"CircleOne\" form a circle",
              failure([&] { object.setClassName("CircleOne"); }));
    EXPECT_EQ("", object.getClassName());
    EXPECT_EQ("8000000E Property class \"Nobody\" (of \"Nobody\") is not registered",
              failure([&] { makeObject("Nobody"); }));

    IPropertyObject* raw = nullptr;
    checkErrorInfo((createObject<ChannelLike, IPropertyObject>(&raw)));
    const GenericPropertyObjectPtr channel(ObjectPtr<IPropertyObject>::take(raw));
    EXPECT_EQ("80000011 Property class \"PlainClass\" is no \"Channel\"",
              failure([&] { channel.setClassName("PlainClass"); }));
    channel.setClassName("Channel");
    channel.setPropertyValue("Name", "AI 1");
    channel.setClassName("Definition");
    channel.setClassName("Definition");
    EXPECT_EQ("Definition", channel.getClassName());
    EXPECT_EQ("AI 1", get(channel, "Name"));
    EXPECT_EQ("true", get(channel, "ShouldReserveMemory"));
    // The class goes while the object lives: the name stays and so does no further change.
    definition.remove();
    channel.setClassName("Definition");
    EXPECT_FALSE(channel.hasProperty("ShouldReserveMemory"));
}

TEST(Classes, theHostsOwnAreRegisteredInTheOrderOfTheirTables) {
    // Ran at static initialisation, and runs again without an effect.
    const size_t before = zornCoreObjectsGetObjectCount();
    NodePropertyClassRegistrator node;
    ChannelNodePropertyClassRegistrator channelNode;
    ChannelPropertyClassRegistrator channel;
    RegisterRangeItemPropertyClass rangeItem;
    EXPECT_EQ(before, zornCoreObjectsGetObjectCount());
    EXPECT_EQ(Errors::Success, startupFailure().code) << startupFailure().text;

    EXPECT_EQ("NodeType NodeId getUniqueId Parent Name ChannelNodeType getActive Used Unit Scale Offset MinValue "
              "MaxValue getBuffer getSamplesAcquired incrementSamplePosition SampleRate ChannelId initialize "
              "initializeAcquisition startAcquisition stopAcquisition finalizeAcquisition getCurrentSample "
              "getSampleAtPos getSampleAtRelativePos hasSamples scaleValue Description SampleDataType Dimension Type "
              "IsControl IsStored ShouldReserveMemory",
              propertyNames(makeObject("Channel"), PropertyOrder::Index));
    EXPECT_EQ("NodeId Parent Name Used Unit Scale Offset MinValue MaxValue SampleRate ChannelId Description "
              "SampleDataType Dimension Type IsControl IsStored ShouldReserveMemory",
              propertyNames(makeObject("Channel"), PropertyOrder::Index, true));
    EXPECT_EQ("DisplayName Min Max", propertyNames(makeObject("RangeItem"), PropertyOrder::Index));
    const auto object = makeObject("Channel");
    EXPECT_EQ(CoreType::Bool, object.getPropertyInfo(ChannelPropertyClass::UsedProp).getValueType());
    EXPECT_EQ(CoreType::Ratio, object.getPropertyInfo(ChannelPropertyClass::SampleRateProp).getValueType());
    EXPECT_EQ("1", get(object, ChannelPropertyClass::DimensionProp));
    EXPECT_EQ("", get(object, ChannelPropertyClass::UnitProp));
    EXPECT_EQ("8000000B Not assigned", get(object, ChannelPropertyClass::SampleRateProp));
    EXPECT_EQ("ChannelNode", PropertyObjectManagerPtr::create().findClass("Channel").getParent());
}

TEST(Classes, aFailureAtStartIsRememberedAndTheFirstOneCounts) {
    StartupFailure& failure = startupFailure();
    EXPECT_FALSE(runAtStartup([] { throw AlreadyExistsException("first"); }));
    EXPECT_FALSE(runAtStartup([] { throw std::runtime_error("second"); }));
    EXPECT_TRUE(runAtStartup([] {}));
    EXPECT_EQ(Errors::AlreadyExists, failure.code);
    EXPECT_EQ("first", failure.text);
    failure = {};
}
