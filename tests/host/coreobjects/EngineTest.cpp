#include "tests/host/coreobjects/Objects.h"

#include <cmath>

using namespace Harvane::RT::Core;
using namespace Harvane::RT::Core::Testing;

TEST(Engine, nullsAreRefused) {
    const auto object = makeObject();
    const StringPtr name("x");
    IBaseObject* value = nullptr;
    unsigned char flag = 0;
    EXPECT_EQ(Errors::ArgumentNull, object->setProperty(nullptr, value));
    EXPECT_EQ(Errors::ArgumentNull, object->getProperty(nullptr, &value));
    EXPECT_EQ(Errors::ArgumentNull, object->getProperty(name.get(), nullptr));
    EXPECT_EQ(Errors::ArgumentNull, object->isPropertySet(nullptr, &flag));
    EXPECT_EQ(Errors::ArgumentNull, object->getPropertyInfo(name.get(), nullptr));
}

TEST(Engine, anInfoServesOneRegistration) {
    const auto first = property("A");
    const auto object = makeObject({first});
    EXPECT_EQ(0, first.getIndex());
    EXPECT_EQ("80000017 Object frozen", failure([&] { first.min(1); }));
    EXPECT_EQ("80000017 Property A is registered already", failure([&] { makeObject({first}); }));
    const auto indexed = property("B");
    checkErrorInfo(indexed->setIndex(4));
    EXPECT_EQ("8000000E Property B has an index already", failure([&] { object.registerProperty(indexed); }));
    EXPECT_EQ("8000000A Property A already exists", failure([&] { object.registerProperty(property("A")); }));
    const auto second = property("C");
    object.registerProperty(second);
    EXPECT_EQ(1, second.getIndex());
}

TEST(Engine, valuesTakeTheTypeOfTheirProperty) {
    const std::string refused = "80000001 Value type is different than property type and conversion failed";
    const std::tuple<CoreType, BasePtr, std::string> cases[] = {
        {CoreType::Int, toValue(2.9), "2"},
        {CoreType::Int, toValue("12"), "12"},
        {CoreType::Int, toValue("twelve"), refused},
        {CoreType::Int, asBase(ListPtr::create()), refused},
        {CoreType::Float, toValue(2), "2"},
        {CoreType::Bool, toValue(1), "true"},
        {CoreType::String, toValue(1.5), "1.5"},
        {CoreType::Ratio, toValue("1000/3"), "1000/3"},
        {CoreType::Ratio, toValue(50), "50/1"},
        {CoreType::Enum, toValue(1.0), "1"},
        {CoreType::Object, toValue("anything"), "anything"},
        {CoreType::List, toValue(1), refused},
        {CoreType::Proc, toValue(1), refused},
        {CoreType::Int, asBase(makeEval("1 + 1")), "1 + 1"},
    };
    for (const auto& [type, value, stored] : cases) {
        SCOPED_TRACE(textOf(value));
        const auto object = makeObject({property("P", type)});
        const std::string error = failure([&, given = value] { object.setPropertyValue("P", given); });
        EXPECT_EQ(stored, error.empty() ? get(object, "P") : error);
        EXPECT_EQ(error.empty(), object.isPropertySet("P"));
    }
    const auto object = makeObject({property("Do", CoreType::Proc)});
    object.setPropertyValue("Do", makeProc([](const BasePtr&) -> ErrCode { return 0; }));
    EXPECT_TRUE(object.getPropertyValue<>("Do").asPtrOrNull<IProcObject>());
}

TEST(Engine, writingNeverRefusesLimitsReadOnlyOrDisabled) {
    const auto object =
        makeObject({property("Limited").min(0).max(5), property("Fixed", CoreType::String).readOnly("always"),
                    property("Bare").readOnly(BasePtr()), property("Off").enabled(false)});
    object.setPropertyValue("Limited", 99);
    EXPECT_EQ("99", get(object, "Limited"));
    object.setPropertyValue("Fixed", "written");
    EXPECT_EQ("always", get(object, "Fixed"));
    object.setPropertyValue("Bare", 1);
    EXPECT_EQ("80000001 Property Bare set as readonly, but readonly value not assigned", get(object, "Bare"));
    object.setPropertyValue("Off", 1);
    EXPECT_EQ("80000013 Property Off is not enabled", get(object, "Off"));
    EXPECT_TRUE(object.isPropertySet("Off"));
}

TEST(Engine, attributesFollowOtherProperties) {
    const auto object =
        makeObject({property("Mode").defaultValue(0), property("P")
                                                          .defaultValue(makeEval("$Mode * 10"))
                                                          .enabled(makeEval("$Mode < 2"))
                                                          .visible(makeEval("$Mode == 1"))
                                                          .unit(makeEval("if($Mode == 0, \"V\", \"mV\")"))
                                                          .max(makeEval("$Mode + 5"))});
    EXPECT_EQ("0", get(object, "P"));
    EXPECT_EQ("Mode", propertyNames(object, PropertyOrder::Index, true));
    object.setPropertyValue("Mode", 1);
    EXPECT_EQ("10", get(object, "P"));
    EXPECT_EQ("Mode P", propertyNames(object, PropertyOrder::Index, true));
    const auto info = object.getPropertyInfo("P");
    EXPECT_EQ("mV", textOf(info.getUnit()));
    EXPECT_EQ("6", textOf(info.getMaxValue()));
    EXPECT_EQ("10", textOf(info.getDefaultValue()));
    EXPECT_EQ(1, info.getIndex());
    EXPECT_EQ(0u, info.getValuesAsList().getCount());
    object.setPropertyValue("Mode", 2);
    EXPECT_EQ("80000013 Property P is not enabled", get(object, "P"));
    EXPECT_EQ("80000006 Property Q not found", failure([&] { object.getPropertyInfo("Q"); }));
    // A condition that can't be computed hides nothing.
    object.registerProperty(property("R").visible(makeEval("$P == 1")));
    EXPECT_EQ("Mode R", propertyNames(object, PropertyOrder::Index, true));
}

TEST(Engine, indices) {
    const auto object = makeObject({property("Default", CoreType::List).defaultValue(makeTexts({"x", "y"})),
                                    property("Computed", CoreType::List).defaultValue(makeEval("$Two"))});
    object.setPropertyValue("Two", makeTexts({"a", "b"}));
    object.setPropertyValue("Three", ListPtr::create({toValue(1), asBase(makeEval("40 + 2")), toValue(3)}));
    object.setPropertyValue("Number", 5);
    const std::string tooHigh = "80000005 The index parameter is out of bounds of the list.";
    const std::string noNumber = "80000001 Could not parse the property index.";
    const std::string noBracket = "80000001 No matching ] found.";
    const std::string noList = "80000001 Could not access the index as the value is not a list.";
    const std::pair<const char*, std::string> cases[] = {
        {"Two[0]", "a"},
        {"Two[1]", "b"},
        {"Two[2]", tooHigh},
        {"Three[2]", "3"},
        {"Three[1]", "42"},
        {"Two[x]", noNumber},
        {"Two[-1]", noNumber},
        {"Two[ 1]", noNumber},
        {"Two[]", noNumber},
        {"Two[1x]", noNumber},
        {"Two[1", noBracket},
        {"Number[0]", noList},
        {"Default[1]", "y"},
        {"Default[2]", tooHigh},
        {"Default[1", noBracket},
        {"Default[x]", noNumber},
        {"Computed[1]", "b"},
        {"None[0]", "80000006 Not found"},
        {"Two[18446744073709551617]", noNumber},
    };
    for (const auto& [name, result] : cases) {
        EXPECT_EQ(result, get(object, name)) << name;
    }
    // Elements can be read only; written, such a name is one like any other.
    object.setPropertyValue("Two[0]", "new");
    EXPECT_EQ("a", get(object, "Two[0]"));
}

TEST(Engine, childNamesReachTheChildAlone) {
    const auto parent = makeObject({property("Number").defaultValue(1)});
    const auto child = makeObject();
    parent.setPropertyValue("Child", child);
    std::vector<std::string> log;
    listen(parent, recorder(log, "parent"));
    listen(child, recorder(log, "child"));
    parent.setPropertyValue("Child.X", 3);
    EXPECT_EQ((std::vector<std::string>{"child X=3"}), log);
    EXPECT_EQ("3", get(parent, "Child.X"));
    EXPECT_EQ("3", get(child, "X"));
    EXPECT_FALSE(parent.isPropertySet("Child.X"));
    parent.setPropertyValue("List", ListPtr::create({asBase(child)}));
    EXPECT_EQ("3", get(parent, "List[0].X"));
    parent.clearProperty("Child.X");
    EXPECT_FALSE(child.isPropertySet("X"));
    EXPECT_EQ("80000006 Property Nobody value not found", get(parent, "Nobody.X"));
    EXPECT_EQ("80000006 Property Number value not found", failure([&] { parent.setPropertyValue("Number.X", 1); }));
    parent.setPropertyValue("Number", 2);
    EXPECT_EQ("80004002", get(parent, "Number.X").substr(0, 8));
}

TEST(Engine, eventsObjectFirstThenProperty) {
    std::vector<std::string> log;
    const auto object = makeObject({property("P").defaultValue(0).onValueChanged(recorder(log, "property"))});
    listen(object, recorder(log, "object"));
    object.setPropertyValue("P", 1);
    object.setPropertyValue("P", 1);  // an equal value fires too
    object.setPropertyValue("Free", "text");
    object.clearProperty("P");
    object.clearProperty("P");
    EXPECT_EQ((std::vector<std::string>{"object P=1", "property P=1", "object P=1", "property P=1", "object Free=text",
                                        "object P=1 cleared", "property P=1 cleared", "object P= cleared",
                                        "property P= cleared"}),
              log);
}

TEST(Engine, aHandlerMayWriteBackAndItsFailureIsTheWriters) {
    const auto object = makeObject();
    object.registerProperty(property("Rate").onValueChanged(makeHandler([&](const BasePtr&, const auto&) {
        const int value = object.getPropertyValue<int>("Rate");
        if (value < 0) {
            throw InvalidStateException("no rate below 0");
        }
        if (value % 10 != 0) {
            object.setPropertyValue("Rate", value / 10 * 10);
        }
    })));
    object.setPropertyValue("Rate", 57);
    EXPECT_EQ("50", get(object, "Rate"));
    EXPECT_EQ("80000029 no rate below 0", failure([&] { object.setPropertyValue("Rate", -1); }));
    EXPECT_EQ("-1", get(object, "Rate"));
}

TEST(Engine, readAndWriteFunctionsReplaceTheValue) {
    const auto info = property("P").defaultValue(1);
    checkErrorInfo(info->setOnWriteValue(makeFunc([](const BasePtr& value, BasePtr& result) -> ErrCode {
                                             if (fromValue<int>(value) > 100) {
                                                 throw ValidateFailedException("too much");
                                             }
                                             return result = toValue(fromValue<int>(value) + 1), Errors::Success;
                                         }).get()));
    checkErrorInfo(info->setOnReadValue(makeFunc([](const BasePtr& value, BasePtr& result) -> ErrCode {
                                            return result = toValue(fromValue<int>(value) * 10), Errors::Success;
                                        }).get()));
    const auto object = makeObject({info});
    EXPECT_EQ("10", get(object, "P"));
    object.setPropertyValue("P", 4);
    EXPECT_EQ("50", get(object, "P"));
    EXPECT_EQ("80000030 too much", failure([&] { object.setPropertyValue("P", 101); }));
    EXPECT_EQ("50", get(object, "P"));
}

TEST(Engine, referencesLeadToTheirTarget) {
    const auto object = makeObject(
        {property("Mode").defaultValue(0),
         property("Range", CoreType::Reference).reference(makeEval("switch($Mode, 0, %Volts, 1, %Amps)")),
         property("Alias", CoreType::Reference).reference(makeEval("%Range")), property("Volts").defaultValue(1),
         property("Amps", CoreType::List).defaultValue(makeTexts({"a", "b"}))});
    std::vector<std::string> log;
    listen(object, recorder(log, "object"));
    EXPECT_EQ("1", get(object, "Range"));
    EXPECT_EQ("1", get(object, "Alias"));
    object.setPropertyValue("Alias", "7");
    EXPECT_EQ((std::vector<std::string>{"object Volts=7"}), log);
    EXPECT_EQ("7", get(object, "Volts"));
    EXPECT_FALSE(object.isPropertySet("Range"));
    object.setPropertyValue("Mode", 1);
    EXPECT_EQ("Amps", object.getPropertyInfo("Range").getName());
    EXPECT_EQ("b", get(object, "Range[1]"));
    object.setPropertyValue("Range", makeTexts({"c"}));
    EXPECT_EQ("c", get(object, "Range[0]"));
    object.clearProperty("Range");
    EXPECT_EQ("b", get(object, "Amps[1]"));
    EXPECT_EQ("7", get(object, "Volts"));
    object.setPropertyValue("Mode", 2);
    const std::string lost = "80000014 Invalid reference to property";
    EXPECT_EQ(lost, get(object, "Range"));
    EXPECT_EQ(lost, failure([&] { object.setPropertyValue("Range", 1); }));
    EXPECT_EQ(lost, failure([&] { object.getPropertyInfo("Alias"); }));
    EXPECT_TRUE(object.hasProperty("Range"));
    // The list of all shows the reference under its own name, and one that leads nowhere hides nothing.
    EXPECT_EQ("Mode Range Alias Volts Amps", propertyNames(object));
}

TEST(Engine, referencesInACircleEnd) {
    const auto object = makeObject({property("A", CoreType::Reference).reference(makeEval("%B")),
                                    property("B", CoreType::Reference).reference(makeEval("%A")),
                                    property("Self", CoreType::Reference).reference(makeEval("%Self")),
                                    property("Text", CoreType::Reference).reference(makeEval("\"B\""))});
    for (const char* name : {"A", "Self", "Text"}) {
        EXPECT_EQ("80000014 Invalid reference to property", get(object, name)) << name;
    }
}

TEST(Engine, enumQueries) {
    const auto names = makeTexts({"x", "y"});
    const auto object =
        makeObject({property("Good", CoreType::Enum).defaultValue(1).values(names),
                    property("Computed", CoreType::Enum).defaultValue(1).values(makeEval("$Names")),
                    property("Plain").defaultValue(1).values(names), property("None", CoreType::Enum).defaultValue(1),
                    property("NoList", CoreType::Enum).defaultValue(1).values(3),
                    property("Selected").selection().defaultValue(0).values(names)});
    object.setPropertyValue("Names", makeTexts({"p", "q"}));
    const std::pair<const char*, const char*> cases[] = {
        {"Good", "y"},
        {"Computed", "q"},
        {"Selected", "x"},
        {"Plain", "80000001 Property Plain is not an enum"},
        {"None", "80000001 Enum property None has no value list assigned"},
        {"NoList", "80000001 Enum property NoList values is not a list"},
        {"Names", "80000001 Enum property Names must be registered"},
        {"Nobody", "80000001 Enum property Nobody must be registered"},
    };
    auto text = [&](const char* name) { return outcome([&] { return textOf(object.getPropertyEnum(name)); }); };
    for (const auto& [name, result] : cases) {
        EXPECT_EQ(result, text(name));
    }
    for (const int beyond : {2, -1}) {
        object.setPropertyValue("Good", beyond);
        EXPECT_EQ("80000005", text("Good").substr(0, 8));
    }
}

TEST(Engine, prototypeAndOwnerAreAskedForWhatIsUnset) {
    const TemporaryClass base("EngineBase"), derived("EngineDerived", "EngineBase");
    const auto prototype = makeObject({property("P").defaultValue(5)});
    prototype.setPropertyValue("EngineBase:Q", "by class");
    const auto object = makeObject("EngineDerived");
    object.registerProperty(property("Own").defaultValue(1));
    checkErrorInfo(object->setPrototype(prototype.get()));
    EXPECT_EQ("5", get(object, "P"));
    EXPECT_TRUE(object.hasProperty("P"));
    EXPECT_FALSE(object.isPropertySet("P"));
    EXPECT_EQ("by class", get(object, "Q"));
    EXPECT_EQ("P", object.getPropertyInfo("P").getName());

    const auto owner = makeObject();
    owner.setPropertyValue(":Own", 10);
    owner.setPropertyValue("R", "plain");
    const auto grandOwner = makeObject();
    grandOwner.setPropertyValue(":S", "too far");
    grandOwner.setPropertyValue("Child", owner);
    owner.setPropertyValue("Child", object);
    EXPECT_EQ("10", get(object, "Own"));
    owner.setPropertyValue("EngineBase:Own", 20);
    EXPECT_EQ("20", get(object, "Own"));
    owner.setPropertyValue("EngineDerived:Own", 30);
    EXPECT_EQ("30", get(object, "Own"));
    EXPECT_FALSE(object.isPropertySet("Own"));
    EXPECT_EQ("80000006 Not found", get(object, "R"));
    EXPECT_EQ("80000006 Not found", get(object, "S"));
    owner.clearProperty("Child");  // lets the child go
    EXPECT_EQ("1", get(object, "Own"));
}

TEST(Engine, prototypesAndOwnersAreHeldWeakly) {
    const auto object = makeObject();
    {
        const auto prototype = makeObject();
        const auto owner = makeObject();
        checkErrorInfo(object->setPrototype(prototype.get()));
        checkErrorInfo(object->setOwner(owner.get(), StringPtr("Child").get()));
        EXPECT_EQ("80000001 The prototypes form a circle",
                  failure([&] { checkErrorInfo(prototype->setPrototype(object.get())); }));
    }
    EXPECT_EQ("80000006 Not found", get(object, "P"));
    EXPECT_FALSE(made<IPropertyObject>([&](IPropertyObject** held) { return object->getPrototype(held); }));
}

TEST(Engine, checkedSetRefusesReadably) {
    const auto object =
        makeObject({property("Rate").defaultValue(10).min(10).max(1000), property("Level", CoreType::Float).min(0.5),
                    property("Top", CoreType::Float).max(1.5), property("Ratio", CoreType::Ratio).max(Ratio{7, 2}),
                    property("Filter").selection().values(makeTexts({"Off", "10 kHz"})),
                    property("Alias", CoreType::Reference).reference(makeEval("%Rate")), property("Fixed").readOnly(1),
                    property("Off").enabled(false)});
    object.setPropertyValue("Child", makeObject());
    object.setPropertyValue("Child.X", 1);
    const std::tuple<const char*, BasePtr, const char*> cases[] = {
        {"Rate", toValue(1000), ""},
        {"Rate", toValue("20"), ""},
        {"Rate", toValue(1001), "80000005 Property Rate takes 10 to 1000, not 1001"},
        {"Rate", toValue("fast"), "80000001 Property Rate takes a value of type int, not \"fast\""},
        {"Rate", toValue(20.5), "80000001 Property Rate takes a value of type int, not 20.5"},
        {"Alias", toValue(5), "80000005 Property Alias takes 10 to 1000, not 5"},
        {"Level", toValue(0.4), "80000005 Property Level takes 0.5 or more, not 0.4"},
        {"Level", toValue(NAN), "80000005 Property Level takes 0.5 or more, not nan"},
        {"Top", toValue(NAN), "80000005 Property Top takes 1.5 or less, not nan"},
        {"Ratio", toValue("7/2"), ""},
        {"Ratio", toValue(4), "80000005 Property Ratio takes 7/2 or less, not 4/1"},
        {"Filter", toValue(2), "80000005 Property Filter has the choices 0: Off, 1: 10 kHz; there is no 2"},
        {"Fixed", toValue(1), "80000027 Property Fixed is read-only"},
        {"Off", toValue(1), "80000013 Property Off is not enabled"},
        {"Nobody", toValue(1), "80000006 Property Nobody not found"},
        {"Child.X", toValue(2), ""},
        {"Rate.X", toValue(2), "80000006 Property Rate.X not found: Rate holds no properties"},
    };
    for (const auto& [name, value, expected] : cases) {
        SCOPED_TRACE(std::string(name) + " " + textOf(value));
        const std::string before = get(object, name);
        const std::string result = failure([&, property = StringPtr(name), given = value] {
            checkErrorInfo(zornCheckedSetProperty(object.get(), property.get(), given.get()));
        });
        EXPECT_EQ(expected, result);
        EXPECT_TRUE(result.empty() || get(object, name) == before);
    }
    EXPECT_EQ("20", get(object, "Rate"));
}
