#include "tests/host/coreobjects/Objects.h"

#include <zorn/structure/property_classes.h>

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

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
}

TEST(Classes, objectsHaveThePropertiesOfTheChain) {
    TemporaryClass base("ChainBase"), derived("ChainDerived", "chainbase");
    base.objectClass.registerProperty(property("Z").defaultValue(1));
    base.objectClass.registerProperty(property("Covered").defaultValue(2));
    EXPECT_EQ("8000000A Property Z already exists", failure([&] { base.objectClass.registerProperty(property("Z")); }));
    derived.objectClass.registerProperty(property("M").defaultValue(makeEval("$Z + 1")));
    derived.objectClass.registerProperty(property("H").hidden());
    const auto object = makeObject("ChainDerived");
    object.registerProperty(property("Own").defaultValue(5));
    object.registerProperty(property("Covered").defaultValue(20));
    EXPECT_EQ("1", get(object, "Z"));
    EXPECT_EQ("2", get(object, "M"));
    EXPECT_EQ("20", get(object, "Covered"));
    object.setPropertyValue("Z", "9");
    EXPECT_EQ("10", get(object, "M"));
    EXPECT_TRUE(object.hasProperty("Z"));
    EXPECT_EQ("Z M H Own Covered", propertyNames(object, PropertyOrder::Index));
    EXPECT_EQ("Z M Own Covered", propertyNames(object, PropertyOrder::Index, true));
    EXPECT_EQ("Covered H M Own Z", propertyNames(object, PropertyOrder::Name));

    // A property that comes later is seen as well and covers its parent's; a class that goes takes its own along.
    for (auto* late : {&base, &derived}) {
        const char* text = late == &base ? "base" : "derived";
        late->objectClass.registerProperty(property("Late", CoreType::String).defaultValue(text));
        EXPECT_EQ(text, get(object, "Late"));
    }
    base.remove();
    EXPECT_EQ("9", get(object, "Z"));
    EXPECT_EQ("M H Late Own Covered", propertyNames(object, PropertyOrder::Index));
    derived.remove();
    EXPECT_EQ("80000006 Not found", get(object, "Late"));
    EXPECT_EQ("5", get(object, "Own"));
    EXPECT_FALSE(object.hasProperty("M"));
}

TEST(Classes, setClassNameRefuses) {
    TemporaryClass orphan("Orphan", "Nobody"), one("CircleOne", "CircleTwo"), two("CircleTwo", "CircleOne");
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
}

TEST(Classes, theHostsOwnAreRegisteredInTheOrderOfTheirTables) {
    EXPECT_EQ(Errors::Success, startupFailure().code) << startupFailure().text;

    EXPECT_EQ(
        "NodeType NodeId getUniqueId Parent Name ChannelNodeType getActive Used Unit Scale Offset MinValue "
        "MaxValue getBuffer getSamplesAcquired incrementSamplePosition SampleRate ChannelId initialize "
        "initializeAcquisition startAcquisition stopAcquisition finalizeAcquisition getCurrentSample "
        "getSampleAtPos getSampleAtRelativePos hasSamples scaleValue Description SampleDataType Dimension Type "
        "IsControl IsStored ShouldReserveMemory",
        propertyNames(makeObject("Channel"), PropertyOrder::Index));
    EXPECT_EQ("DisplayName Min Max", propertyNames(makeObject("RangeItem"), PropertyOrder::Index));
    EXPECT_EQ("ChannelNode", PropertyObjectManagerPtr::create().findClass("Channel").getParent());
}
